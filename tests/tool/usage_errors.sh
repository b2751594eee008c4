#!/bin/sh
# Every line of usage_errors.txt is a command line and the one line that
# xrprocdetect must write to standard error for it, separated by " => ". Each
# must exit with status 2 and write nothing to standard output.
#
#   usage_errors.sh TOOL DATA_DIR TABLE
set -u
tool=$1 data=$2 table=$3
cd "$data" || exit 1
failed=0 count=0
while IFS= read -r entry; do
  case "$entry" in '' | '#'*) continue ;; esac
  args=${entry%% => *}
  want=${entry#* => }
  count=$((count + 1))
  # Word splitting of the arguments is wanted here.
  # shellcheck disable=SC2086
  got=$("$tool" $args 2>&1 >/dev/null </dev/null)
  status=$?
  out=$("$tool" $args 2>/dev/null </dev/null)
  if [ "$status" != 2 ] || [ "$got" != "$want" ] || [ -n "$out" ]; then
    echo "xrprocdetect $args"
    echo "  status $status (want 2), stderr: $got"
    echo "  want stderr:              $want"
    [ -n "$out" ] && echo "  and wrote to standard output: $out"
    failed=1
  fi
done <"$table"
[ "$count" -gt 0 ] || { echo "no cases read from $table"; exit 1; }
echo "$count usage errors checked"
exit $failed
