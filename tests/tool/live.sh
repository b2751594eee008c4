#!/bin/sh
# live.sh TOOL [sanitized]
#
# xrprocdetect on this machine: the default run and --all succeed, and 5.3
# counts the configured processors. With /proc/cpuinfo missing (hidden in a
# private mount namespace: as root, and not in sanitized builds, whose
# runtime needs /proc) --all is refused instead of hanging, and 5.3 still
# runs.
set -u
tool=$1 failed=0
check() { [ "$1" = "$2" ] || { echo "$3: got '$1', expected '$2'"; failed=1; }; }
check "$("$tool" >/dev/null; echo $?)" 0 "exit status of xrprocdetect"
check "$("$tool" --all | grep -cE '^(5\.3|6\.0|6\.1|7\.0|default) ')" 5 "rows of --all"
check "$("$tool" -a 5.3 | sed -n 's/^Packages  *//p')" "$(getconf _NPROCESSORS_CONF)" "5.3 packages"
if [ -z "${2:-}" ] && [ "$(id -u)" = 0 ] && unshare -m true 2>/dev/null; then
  hide='mount --make-rprivate / && mount -t tmpfs none /proc && timeout 10 "$@" >/dev/null; echo $?'
  check "$(unshare -m sh -c "$hide" sh "$tool" --all 2>&1)" "xrprocdetect: cannot read /proc/cpuinfo (No such file or directory); generation 6.0 would never return, so it is not run (use --cpuinfo FILE, or --algorithm 5.3)
2" "--all without /proc/cpuinfo"
  check "$(unshare -m sh -c "$hide" sh "$tool" -a 5.3 2>&1)" 0 "5.3 without /proc/cpuinfo"
fi
exit $failed
