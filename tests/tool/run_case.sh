#!/bin/sh
# run_case.sh TOOL DATA_DIR EXPECTED_DIR NAME STATUS STDIN [ARGS...]
#
# Runs xrprocdetect ARGS in DATA_DIR, with the file STDIN there as standard
# input (- for none), and checks its exit status, its standard output against
# EXPECTED_DIR/NAME.out and its standard error against NAME.err (empty
# when there is none).
set -u
tool=$1 expected=$3/$4 status=$5 input=$6
cd "$2" || exit 1
shift 6
[ "$input" = - ] && input=/dev/null
[ -f "$expected.err" ] && want_err=$expected.err || want_err=/dev/null
out=$(mktemp) err=$(mktemp)
trap 'rm -f "$out" "$err"' EXIT
"$tool" "$@" <"$input" >"$out" 2>"$err"
got=$? failed=0
[ "$got" = "$status" ] || { echo "exit status $got, expected $status"; failed=1; }
diff -u "$expected.out" "$out" || failed=1
diff -u "$want_err" "$err" || failed=1
exit $failed
