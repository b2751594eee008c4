#!/bin/sh
# Runs xrprocdetect from tests/data and compares what it did with what is
# expected: its exit status, its standard output with expected/NAME.out, and
# its standard error with expected/NAME.err (empty when there is no such
# file).
#
#   run_case.sh TOOL DATA_DIR EXPECTED_DIR NAME STATUS STDIN [ARGS...]
#
# STDIN is a file of DATA_DIR to read as standard input, or - for none.
set -u
tool=$1 data=$2 expected=$3 name=$4 status=$5 input=$6
shift 6
out=$(mktemp) err=$(mktemp)
trap 'rm -f "$out" "$err"' EXIT
cd "$data" || exit 1
if [ "$input" = - ]; then
  "$tool" "$@" >"$out" 2>"$err" </dev/null
else
  "$tool" "$@" >"$out" 2>"$err" <"$input"
fi
got=$?
failed=0
if [ "$got" != "$status" ]; then
  echo "exit status $got, expected $status"
  failed=1
fi
if ! diff -u "$expected/$name.out" "$out"; then
  echo "standard output differs from $name.out (above)"
  failed=1
fi
if [ -f "$expected/$name.err" ]; then
  diff -u "$expected/$name.err" "$err" || { echo "standard error differs from $name.err"; failed=1; }
elif [ -s "$err" ]; then
  echo "unexpected standard error:"
  cat "$err"
  failed=1
fi
exit $failed
