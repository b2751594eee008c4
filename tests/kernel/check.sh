#!/bin/sh
# xrprocdetect --check on the sysroot fixtures: exit status 3 exactly when a
# selected generation's packages, cores or logical processors differ from
# the kernel's (see rows.txt), 4 when they could not all be compared, 2 when
# an input cannot be read, whatever the others say.
#
#   check.sh TOOL SYSROOTS_DIR CASES (check.txt: status and arguments, a line each)
set -u
tool=$1 cases=$(realpath "$3")
cd "$2" || exit 1
failed=0
while read -r status args; do
  case $status in '#'* | '') continue ;; esac
  # shellcheck disable=SC2086
  "$tool" --check $args </dev/null >/dev/null 2>&1
  got=$?
  if [ "$got" != "$status" ]; then
    echo "xrprocdetect --check $args: exit status $got, expected $status"
    failed=1
  fi
done <"$cases"
exit $failed
