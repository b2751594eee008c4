#!/bin/sh
# The usable processors of a process in a control group, live: the tool in
# a group with a quota of 1.5 processors and a cpuset of one processor, then
# in an unlimited child of a group limited to 1 processor, whose limit must
# win; with cgroup v1, also with the cpuset hierarchy mounted outside /sys,
# whose files a save must keep. A save refused into a new group removes it.
# Needs root and a writable cgroup v1 cpu and cpuset hierarchy, or a cgroup
# v2 hierarchy with the cpu and cpuset controllers; skips (77) otherwise.
# Removes the groups it makes, whatever happens.
#
#   live_cgroup.sh TOOL
set -u
tool=$1 name=xrprocdetect-test-$$ failed=0 ns=
[ "$(id -u)" = 0 ] || { echo "skipped: not root"; exit 77; }
v1=/sys/fs/cgroup
if [ -w $v1/cpu/cgroup.procs ] && [ -w $v1/cpuset/cgroup.procs ]; then
  cpu=$v1/cpu/$name set=$v1/cpuset/$name
  quota() { echo 100000 >"$1/cpu.cfs_period_us" && echo "$2" >"$1/cpu.cfs_quota_us"; }
  unlimited=-1
else
  v2=$(awk '$3 == "cgroup2" { print $2; exit }' /proc/mounts)
  grep -qw cpu "$v2/cgroup.controllers" 2>/dev/null && grep -qw cpuset "$v2/cgroup.controllers" ||
    { echo "skipped: no writable cgroup hierarchy with cpu and cpuset"; exit 77; }
  echo "+cpu +cpuset" >"$v2/cgroup.subtree_control" || { echo "skipped: cannot enable cpu"; exit 77; }
  cpu=$v2/$name set=$v2/$name
  quota() { echo "$2 100000" >"$1/cpu.max"; }
  unlimited=max
fi
work=$(mktemp -d)
cleanup() {
  rmdir "$cpu/child" "$cpu/new" "$cpu" "$set" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
mkdir -p "$cpu" "$set" || exit 1
first=$(cut -d, -f1 /sys/devices/system/cpu/online | cut -d- -f1)

# in_groups ARGS GROUP... : the tool run with ARGS in each GROUP; with $ns
# "env at=DIR unshare -m", in a mount namespace where the v1 cpuset
# hierarchy is mounted at DIR instead of under /sys.
in_groups() {
  # shellcheck disable=SC2016
  $ns sh -c 'a=$1; shift; for g in "$@"; do echo $$ >"$g/cgroup.procs" || exit 1; done
    [ -z "${at:-}" ] || { umount /sys/fs/cgroup/cpuset && mount -t cpuset none "$at"; } || exit 1
    exec "$0" $a' "$tool" "$@"
}
# run ARGS GROUP... : its kernel row, as "usable quota effective".
run() {
  in_groups "$@" | python3 -c 'import json, sys
k = json.load(sys.stdin)["kernel"]
print(k["usableProcessors"], k["cpuQuota"], k["effectiveProcessors"])'
}
check() {
  [ "$2" = "$3" ] || { echo "$1: got '$2', expected '$3'"; failed=1; }
}

quota "$cpu" 150000 || exit 1
if [ -f "$set/cpuset.mems" ]; then cat "$(dirname "$set")/cpuset.mems" >"$set/cpuset.mems"; fi
echo "$first" >"$set/cpuset.cpus" || exit 1
[ "$cpu" = "$set" ] && groups=$cpu || groups="$cpu $set"
# shellcheck disable=SC2086
check "quota 1.5, one processor" "$(run "-J -a 5.3" $groups)" "1 1.5 1"
# A snapshot saved there keeps the groups' files, and replays them.
in_groups "--save $work/s" $groups >/dev/null || failed=1
check "the same, saved" "$(run "-J -a 5.3 --snapshot $work/s")" "1 1.5 1"
# The same with the cpuset hierarchy mounted outside /sys (the old cpuset
# file system, as at /dev/cpuset): its files are saved under the snapshot,
# and no working folder is left.
if [ "$set" = "$v1/cpuset/$name" ] && mkdir "$work/cpuset"; then
  ns="env at=$work/cpuset unshare -m"
  # shellcheck disable=SC2086
  check "cpuset outside /sys" "$(run "-J -a 5.3" $groups)" "1 1.5 1"
  in_groups "--save $work/t" $groups >/dev/null && [ ! -e "$work/t/.xrprocdetect-saving" ] &&
    [ -f "$work/t$work/cpuset/$name/cpuset.effective_cpus" ] ||
    { echo "cpuset outside /sys: not saved"; failed=1; }
  ns=
  check "outside /sys, saved" "$(run "-J -a 5.3 --snapshot $work/t")" "1 1.5 1"
fi
# A save refused into a new group (which is not empty) removes the group.
"$tool" --save "$cpu/new" 2>/dev/null
[ $? = 2 ] && [ ! -e "$cpu/new" ] || { echo "a save refused into a new group left it"; failed=1; }

quota "$cpu" 100000 && mkdir "$cpu/child" && quota "$cpu/child" $unlimited || exit 1
echo "$(cat /sys/devices/system/cpu/online)" >"$set/cpuset.cpus"
online=$(python3 -c 'import os; print(len(os.sched_getaffinity(0)))')
check "unlimited child of a group of 1" "$(run "-J -a 5.3" "$cpu/child")" "$online 1 1"
exit $failed
