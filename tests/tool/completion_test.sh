#!/usr/bin/env bash
# The bash completion of xrprocdetect: options, generation names, files and
# directories, as bash would ask for them.
#
#   completion_test.sh COMPLETION_FILE
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

# The options by prefix (every option is in the completion's list: options_agree.sh).
check --s -- --snapshot --save --summary
check --json -- --json --json-lines --json-schema
check --json-schema = '' -- 1 2
check -a '' -- default 7.0 6.1 6.0 5.3
check --algorithm 6 -- 6.1 6.0
check --algorithm = 7 -- 7.0
check --cpuinfo "$dir/" -- "$dir/a.cpuinfo" "$dir/b.txt" "$dir/sub"
check --snapshot "$dir/" -- "$dir/sub"
check --all --save "$dir/s" -- "$dir/sub"
# Operands after --snapshot or --cpuinfo are more inputs of the same kind.
check --snapshot a "$dir/" -- "$dir/sub"
check --cpuinfo a --all "$dir/" -- "$dir/a.cpuinfo" "$dir/b.txt" "$dir/sub"
check --all "$dir/" --
exit $failed
