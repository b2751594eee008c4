#!/bin/sh
# A save that fails leaves nothing behind: --save into a tmpfs with too few
# inodes for the whole snapshot, cut off while it writes the kernel files,
# the CPUID dumps, and the metadata. Each must exit 2 and leave the tmpfs as
# it was found (empty: the directory did not exist); so must a save that
# cannot read a kernel list, while one that cannot read a file it may do
# without leaves that file out; and one refused for permissions removes the
# directory it made. Needs root to mount;
# skips (77) otherwise.
#
#   failed_save.sh TOOL
set -u
tool=$1
[ "$(id -u)" = 0 ] || { echo "skipped: not root"; exit 77; }
mnt=$(mktemp -d)
cleanup() {
  umount "$mnt" 2>/dev/null
  rmdir "$mnt"
}
trap cleanup EXIT
failed=0

# save INODES [keep]: --save into a fresh tmpfs of that many inodes, into a
# directory made beforehand with "keep"; its exit status
save() {
  umount "$mnt" 2>/dev/null
  mount -t tmpfs -o "size=16m,nr_inodes=$1" none "$mnt" || exit 77
  [ -z "${2:-}" ] || mkdir "$mnt/s"
  "$tool" --save "$mnt/s" >/dev/null 2>"$mnt.err"
}

# A whole save, to count what it writes: the tmpfs's own root, the snapshot's
# folder, the working folder, and every file and folder of the snapshot.
save 100000 || { echo "a save into a roomy tmpfs failed: $(cat "$mnt.err")"; exit 1; }
"$tool" -a 5.3 --snapshot "$mnt/s" >/dev/null || { echo "the saved snapshot does not replay"; failed=1; }
entries=$(find "$mnt/s" -mindepth 1 | wc -l)
dumps=$(find "$mnt/s/cpuid" -name 'pu*' | wc -l)
[ -e "$mnt/s/.xrprocdetect-saving" ] && { echo "the working folder stayed"; failed=1; }

# refused NAME STATUS PATTERN [FOUND]: a save that exited with STATUS must
# have failed, left the tmpfs as it was found (FOUND, "./s" for a directory
# made beforehand, which stays), and said PATTERN.
refused() {
  if [ "$2" = 0 ]; then
    echo "$1: the save succeeded"
    failed=1
  elif [ "$(cd "$mnt" && find . -mindepth 1)" != "${4:-}" ]; then
    echo "$1: left behind: $(cd "$mnt" && find . | head -n 5 | tr '\n' ' ')"
    failed=1
  elif ! grep -q "$3" "$mnt.err"; then
    echo "$1: $(cat "$mnt.err")"
    failed=1
  fi
}

# stage NAME INODES [keep]: a save cut off there
stage() {
  save "$2" "${3:-}"
  refused "$1" $? "^xrprocdetect: cannot save the snapshot: cannot create $mnt/s/" "${3:+./s}"
}
stage "kernel files" 8
stage "CPUID dumps" $((3 + entries - 1 - dumps)) keep
stage "metadata" $((3 + entries - 1))
# A save refused for permissions (a user's whose umask leaves the directory
# it makes unreadable) removes that directory; where that user may run the
# tool (a build tree in a private folder is not theirs to run).
runuser -u nobody -- "$tool" --version >/dev/null 2>&1 && { runuser -u nobody -- sh -c \
  'umask 777 && exec "$0" --save "$1"' "$tool" "$mnt/s" 2>"$mnt.err"
refused "refused for permissions" $? "cannot open $mnt/s: Permission denied$"; }

# A kernel list the save cannot read (a file over its size cap bound over
# the online list, in a mount namespace of its own) fails the save at once,
# which leaves nothing; the C library still reads the list's first line. A
# file the kernel row may do without (a PCI device's vendor) that cannot be
# read is left out, and the save goes on.
big=$(mktemp)
{ echo 0; head -c 70000 /dev/zero | tr '\0' ' '; } >"$big"
# bound PATH: --save into a roomy tmpfs with that file bound over PATH
bound() {
  # shellcheck disable=SC2016
  unshare -m sh -c 'mount --bind "$1" "$2" && exec "$3" --save "$4"' \
    sh "$big" "$1" "$tool" "$mnt/s" >/dev/null 2>"$mnt.err"
}
if unshare -m true 2>/dev/null; then
  save 100000 && rm -rf "$mnt/s"
  bound /sys/devices/system/cpu/online
  refused "unreadable online list" $? \
    "^xrprocdetect: cannot save the snapshot: /sys/devices/system/cpu/online: larger than 65536 bytes$"
  rm -rf "$mnt/s"
  vendor=$(ls -d /sys/bus/pci/devices/*/vendor 2>/dev/null | head -n 1)
  if [ -n "$vendor" ] && ! bound "$vendor"; then
    echo "unreadable PCI vendor: the save failed: $(cat "$mnt.err")"
    failed=1
  elif [ -n "$vendor" ] && { [ -e "$mnt/s$vendor" ] || [ ! -e "$mnt/s/proc/cpuinfo" ]; }; then
    echo "unreadable PCI vendor: saved anyway, or the rest is missing"
    failed=1
  fi
fi
rm -f "$big" "$mnt.err"
exit $failed
