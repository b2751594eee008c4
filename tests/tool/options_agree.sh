#!/bin/sh
# --help, the manual page and the bash completion must name the same
# options, short and long: one described in one place and missing from
# another is a user misled.
#
#   options_agree.sh TOOL MANUAL_PAGE COMPLETION
set -u
tool=$1 man=$2 completion=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# Every word that looks like an option, one a line, sorted.
options() { grep -oE -- '(^|[^a-z0-9-])--?[a-zA-Z][a-z-]*' | sed 's/^[^-]*//' | sort -u; }
"$tool" --help | sed -n '/^  /p' | options >"$work/help"
# The man page's entries: the lines after each .TP of the option lists.
sed 's/\\-/-/g' "$man" | awk 'prev == ".TP" { print } { prev = $1 }' | grep -- '^\.B.* -' |
  options >"$work/man"
# The completion's option words: the quoted list that starts with a dash.
tr '\n' ' ' <"$completion" | grep -o "compgen -W '-[^']*'" | sed "s/^compgen -W//" | options \
  >"$work/completion"
failed=0
for where in man completion; do
  if ! diff -u "$work/help" "$work/$where" >"$work/diff"; then
    echo "--help and the $where differ (- only in --help, + only in the $where):"
    cat "$work/diff"
    failed=1
  fi
done
exit $failed
