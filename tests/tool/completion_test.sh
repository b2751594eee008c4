#!/usr/bin/env bash
# The bash completion of xrprocdetect: options, generation names, files and
# directories, as bash would ask for them.
#
#   completion_test.sh COMPLETION_FILE CASES (completion.txt)
set -euo pipefail
# shellcheck source=/dev/null
source "$1"
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
touch "$dir/a.cpuinfo" "$dir/b.txt"
mkdir "$dir/sub"
failed=0
complete -p xrprocdetect | grep -q ' -F _xrprocdetect ' || { echo 'no completion for xrprocdetect' && failed=1; }

# check WORDS... -- COMPLETIONS...: completes the last word of the line.
check() {
  local words=() want got
  while [ "$1" != -- ]; do words+=("$1") && shift; done
  shift
  COMP_WORDS=(xrprocdetect "${words[@]}") COMP_CWORD=${#words[@]}
  COMP_LINE="xrprocdetect ${words[*]}" && COMP_POINT=${#COMP_LINE}
  _xrprocdetect
  got=$(printf '%s\n' "${COMPREPLY[@]}" | sort | paste -sd' ') want=$(printf '%s\n' "$@" | sort | paste -sd' ')
  [ "$got" = "$want" ] || { echo "xrprocdetect ${words[*]}: got '$got', expected '$want'" && failed=1; }
}

# The cases of completion.txt, each a line of words as the shell reads them
# ("$dir" the scratch directory, which holds a.cpuinfo, b.txt and sub/).
while IFS= read -r line; do
  case "$line" in '' | '#'*) continue ;; esac
  eval "check $line"
done <"$2"
exit $failed
