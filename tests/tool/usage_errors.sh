#!/bin/sh
# usage_errors.sh TOOL DATA_DIR TABLE
#
# Each line of TABLE is a command line, " => ", and the one line that
# xrprocdetect, run in DATA_DIR, must write for it: to standard error, with
# nothing on standard output, and exit status 2.
set -u
tool=$1 failed=0
cd "$2" || exit 1
while IFS= read -r entry; do
  case "$entry" in '' | '#'*) continue ;; esac
  args=${entry%% => *}
  # shellcheck disable=SC2086  # the arguments are meant to be split
  got=$(timeout 10 "$tool" $args 2>&1 </dev/null; echo "status $?")
  want="${entry#* => }
status 2"
  [ "$got" = "$want" ] || { printf 'xrprocdetect %s\n  got: %s\n want: %s\n' "$args" "$got" "$want"; failed=1; }
done <"$3"
exit $failed
