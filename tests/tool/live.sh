#!/bin/sh
# live.sh TOOL [sanitized]
#
# xrprocdetect on this machine: --all writes a row of each generation, and
# 5.3 counts the configured processors; --save and the default run succeed
# (started with SIGSEGV blocked, as a host may start them). With
# /proc/cpuinfo missing (hidden in a private mount namespace: as root, and
# not in sanitized builds, whose runtime needs /proc) --all is refused
# instead of hanging, and 5.3 still runs.
set -u
tool=$1 failed=0
check() { [ "$1" = "$2" ] || { echo "$3: got '$1', expected '$2'"; failed=1; }; }
check "$("$tool" --all | grep -cE '^(5\.3|6\.0|6\.1|7\.0|default) ')" 5 "rows of --all"
blocked() { python3 -c 'import os, signal, sys
signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGSEGV}); os.execv(sys.argv[1], sys.argv[1:])' "$@"; }
scratch=$(mktemp -d) && trap 'rm -rf "$scratch"' EXIT
check "$(blocked "$tool" --save "$scratch" >/dev/null; echo $?; blocked "$tool" >/dev/null; echo $?)" \
  "$(printf '0\n0')" "exit statuses of --save and of the default run, started with SIGSEGV blocked"
check "$("$tool" -a 5.3 | sed -n 's/^Counts  *packages \([0-9]*\),.*/\1/p')" "$(getconf _NPROCESSORS_CONF)" "5.3 packages"
if [ -z "${2:-}" ] && [ "$(id -u)" = 0 ] && unshare -m true 2>/dev/null; then
  hide='mount --make-rprivate / && mount -t tmpfs none /proc && timeout 10 "$@" >/dev/null; echo $?'
  check "$(unshare -m sh -c "$hide" sh "$tool" --all 2>&1)" "xrprocdetect: cannot read /proc/cpuinfo (No such file or directory); generation 6.0 would never return, so it is not run (use --cpuinfo FILE, or --algorithm 5.3)
2" "--all without /proc/cpuinfo"
  check "$(unshare -m sh -c "$hide" sh "$tool" -a 5.3 2>&1)" 0 "5.3 without /proc/cpuinfo"
fi
exit $failed
