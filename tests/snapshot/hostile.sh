#!/bin/sh
# Hostile and half-written snapshots, as a fleet audit meets them: each bad
# input is named on standard error with exit status 2, the good input after
# it is still reported, and nothing hangs (every run under timeout 20).
#
#   hostile.sh TOOL SNAPSHOTS_DIR
set -u
tool=$1 good=$2/vmware-2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failed=0

# bad NAME 'SHELL COMMAND RUN IN s/' 'EXPECTED START OF STANDARD ERROR'
bad() {
  rm -rf s && cp -R "$good" s && (cd s && eval "$2")
  timeout 20 "$tool" --all --snapshot s "$good" >out 2>err
  status=$?
  if [ "$status" != 2 ] || ! grep -q "^xrprocdetect: $3" err || ! grep -q "^Counted from: $good" out
  then
    printf '%s: status %s, standard error\n%s\n' "$1" "$status" "$(cat err)"
    failed=1
  fi
}
topology='mkdir -p sys/devices/system/cpu && cd sys/devices/system/cpu'
bad fifo "$topology && echo 0-1 >possible && mkfifo online" \
  "s/sys/devices/system/cpu/online: a FIFO, not a regular file"
bad fifo-link "$topology && echo 0-1 >online && mkdir -p cpu0/topology && mkfifo ../../../../fifo &&
  ln -s ../../../../../../fifo cpu0/topology/physical_package_id" \
  "s/sys/devices/system/cpu/cpu0/topology/physical_package_id: a FIFO, not a regular file"
# Reached through a link, a FIFO is refused without being opened: a writer
# waiting for a reader still waits.
sh -c 'exec 3>s/fifo' & writer=$!; sleep 1; "$tool" --snapshot s >/dev/null 2>&1; sleep 1
kill $writer 2>/dev/null || { echo "fifo-link: the FIFO was opened"; failed=1; }

# Nothing is read from outside the tree, through a link, a control group or
# a mount point: not outside/cpu.max's quota, not outside/cpuinfo's cores.
mkdir outside && echo 987654 1 >outside/cpu.max &&
  printf 'processor\t: 0\nphysical id\t: 0\ncore id\t: 0\ncpu cores\t: 987654\n' >outside/cpuinfo
inside() {
  rm -rf s && mkdir -p s/proc/self s/sys/fs/cgroup s/sys/devices/system/cpu && (cd s &&
    echo 0-3 >sys/devices/system/cpu/online && echo "0::${3:-/}" >proc/self/cgroup &&
    echo "35 24 0:30 / ${4:-/sys/fs/cgroup} rw - cgroup2 cgroup2 rw" >proc/self/mountinfo &&
    eval "$2") && timeout 20 "$tool" --all --snapshot s >out 2>&1
  grep -q 987654 out || ! grep -q "^Counted from: s" out && { echo "$1: $(cat out)"; failed=1; }
}
inside cpuinfo-link "ln -s $work/outside/cpuinfo proc/cpuinfo"
inside quota-link "ln -s $work/outside/cpu.max sys/fs/cgroup/cpu.max"
inside cgroup-up : /../../../../outside
inside mount-up : / /../outside
inside mount-at-root : "$work/outside" /
for list in 65535,0 1000,0 0,0,0,0 3-1 0-4294967295; do
  bad "list $list" "$topology && echo $list >online" "s/sys/devices/system/cpu/online line 1: "
done
bad unfinished 'mkdir .xrprocdetect-saving' "cannot read the snapshot: s: an unfinished save"
bad pu01 'cp cpuid/pu0 cpuid/pu01' \
  "cannot read the snapshot: s/cpuid/pu01: not a processor number in canonical form"
bad pu10240 'cp cpuid/pu0 cpuid/pu10240' \
  "cannot read the snapshot: s/cpuid/pu10240: processor number above 1023"
bad pu99999999999 'cp cpuid/pu0 cpuid/pu99999999999' \
  "cannot read the snapshot: s/cpuid/pu99999999999: processor number above 1023"
bad too-big 'head -c 4194305 /dev/zero | tr "\0" "#" >cpuid/pu1' \
  "cannot read the snapshot: s/cpuid/pu1: larger than 4 MiB"
bad not-a-snapshot 'rm -rf ./* && mkdir other' "cannot read the snapshot: not a snapshot: s holds none"

# /proc is no snapshot either.
timeout 20 "$tool" --snapshot /proc >/dev/null 2>err
[ $? = 2 ] && grep -q "not a snapshot: /proc" err || { echo "--snapshot /proc: $(cat err)"; failed=1; }

# A link given to --save is refused as a link, and its target left empty.
mkdir empty && ln -s empty link
got=$("$tool" --save link 2>&1)
[ $? = 2 ] && [ -z "$(ls -A empty)" ] && echo "$got" | grep -q "symbolic link" ||
  { echo "--save through a link: $got"; failed=1; }
exit $failed
