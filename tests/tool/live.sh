#!/bin/sh
# xrprocdetect on this machine: the default run and --all succeed, 5.3 counts
# the configured processors, and a run that would read an unreadable
# /proc/cpuinfo is refused instead of hanging (in a private mount namespace,
# as root; skipped otherwise).
#
#   live.sh TOOL [sanitized]
#
# A sanitizer runtime reads its options and the process's threads through
# /proc, so a sanitized tool cannot run with /proc hidden; the unsanitized
# builds check that case.
set -u
tool=$1
sanitized=${2:-}
failed=0
check() {
  if [ "$1" != "$2" ]; then
    echo "$3: got '$1', expected '$2'"
    failed=1
  fi
}

"$tool" >/dev/null
check $? 0 "exit status of xrprocdetect"
rows=$("$tool" --all | grep -cE '^(5\.3|6\.0|6\.1|7\.0|default) ')
check "$rows" 5 "rows of xrprocdetect --all"
packages=$("$tool" -a 5.3 | sed -n 's/^Packages  *//p')
check "$packages" "$(getconf _NPROCESSORS_CONF)" "5.3 packages (the configured processors)"

if [ -n "$sanitized" ]; then
  echo "the unreadable /proc/cpuinfo case is left to unsanitized builds"
  exit $failed
fi
if [ "$(id -u)" -ne 0 ] || ! unshare -m true 2>/dev/null; then
  echo "the unreadable /proc/cpuinfo case needs root and mount namespaces: skipped"
  exit $failed
fi
# /proc hidden under an empty tmpfs: /proc/cpuinfo is missing.
out=$(unshare -m sh -c 'mount --make-rprivate / && mount -t tmpfs none /proc &&
  timeout 10 "$1" --all; echo "status $?"' sh "$tool" 2>&1)
check "$out" "xrprocdetect: cannot read /proc/cpuinfo (No such file or directory); generation 6.0 would never return, so it is not run (use --cpuinfo FILE, or --algorithm 5.3)
status 2" "--all without /proc/cpuinfo"
out=$(unshare -m sh -c 'mount --make-rprivate / && mount -t tmpfs none /proc &&
  timeout 10 "$1" -a 5.3 >/dev/null; echo "status $?"' sh "$tool" 2>&1)
check "$out" "status 0" "5.3 without /proc/cpuinfo"
exit $failed
