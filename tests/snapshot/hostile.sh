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

# Nothing is read from outside the tree, through a control group or a mount
# point: not outside/cpu.max's quota.
mkdir outside && echo 987654 1 >outside/cpu.max
inside() {
  rm -rf s && mkdir -p s/proc/self s/sys/fs/cgroup s/sys/devices/system/cpu && (cd s &&
    echo 0-3 >sys/devices/system/cpu/online && echo "0::${3:-/}" >proc/self/cgroup &&
    echo "35 24 0:30 / ${4:-/sys/fs/cgroup} rw - cgroup2 cgroup2 rw" >proc/self/mountinfo &&
    eval "$2") && timeout 20 "$tool" --all --snapshot s >out 2>&1
  grep -q 987654 out || ! grep -q "^Counted from: s" out && { echo "$1: $(cat out)"; failed=1; }
}
inside cgroup-up : /../../../../outside
inside mount-up : / /../outside
inside mount-at-root : "$work/outside" /
# A link that leads to nothing in the tree (to a device of the machine that
# reads it, to a file outside, to no file) is a broken file, never an absent
# one: the kernel's files are never such links.
for target in /dev/zero "$work/outside/cpu.max" ../../../../../nowhere; do
  bad "link to $target" "$topology && ln -s $target online" \
    "s/sys/devices/system/cpu/online: a link to nothing in the snapshot"
done
for list in 65535,0 1000,0 0,0,0,0 3-1 0-4294967295; do
  bad "list $list" "$topology && echo $list >online" "s/sys/devices/system/cpu/online line 1: "
done
bad unfinished 'mkdir .xrprocdetect-saving' "cannot read the snapshot: s: an unfinished save"
bad pu01 'cp cpuid/pu0 cpuid/pu01' \
  "cannot read the snapshot: s/cpuid/pu01: not a processor number in canonical form"
bad pu99999999999 'cp cpuid/pu0 cpuid/pu99999999999' \
  "cannot read the snapshot: s/cpuid/pu99999999999: processor number above 8191"

# Numbers out of their range are errors that say which range, never answers:
# a count, a frequency, a processor folder, and limits the kernel could not
# hold (the good ones are in the kernel rows' fixtures).
bad count "sed -i 's/\"configuredProcessors\": 2/\"configuredProcessors\": -5/' xrprocdetect.json" \
  "cannot read the snapshot: s/xrprocdetect.json line 4: configuredProcessors -5 is not a processor count from 1 to 8192"
bad frequency "$topology && echo 0-1 >online && for c in 0 1; do mkdir -p cpu\$c/topology cpu\$c/cpufreq &&
  echo \$c >cpu\$c/topology/core_cpus_list; done && echo 2000000 >cpu1/cpufreq/base_frequency &&
  echo -9223372036854775808 >cpu0/cpufreq/base_frequency" \
  "s/sys/devices/system/cpu/cpu0/cpufreq/base_frequency line 1: not a whole number from 1 up"
bad cpu8192 "$topology && mkdir cpu0 cpu8192" "s/sys/devices/system/cpu/cpu8192: processor number above 8191"
cgroup="mkdir -p proc/self sys/fs/cgroup/cpu && $topology && echo 0-1 >online && cd - >/dev/null &&
  printf '0::/\n4:cpu:/\n' >proc/self/cgroup && printf '%s\n' '1 0 0:1 / /sys/fs/cgroup rw - cgroup2 c rw' \
  '2 0 0:2 / /sys/fs/cgroup/cpu rw - cgroup c rw,cpu' >proc/self/mountinfo"
for max in "abc 100000" "-1 100000" "nan 100000" "inf 1" "999 100000" "1000 1000001" 50000 \
  "17592186044416 1000000" "1000 1000 1"; do
  bad "cpu.max $max" "$cgroup && echo $max >sys/fs/cgroup/cpu.max" "s/sys/fs/cgroup/cpu.max line 1: not "
done
for v1 in "0 100000" "-2 100000" "1e5 100000" "50000 0" "50000 1000001"; do
  bad "v1 $v1" "$cgroup && cd sys/fs/cgroup/cpu && echo ${v1% *} >cpu.cfs_quota_us &&
    echo ${v1#* } >cpu.cfs_period_us" "s/sys/fs/cgroup/cpu/cpu.cfs_.*_us line 1: not "
done
bad too-big 'head -c 4194305 /dev/zero | tr "\0" "#" >cpuid/pu1' \
  "cannot read the snapshot: s/cpuid/pu1: larger than 4 MiB"
# A tree whose files the readers read, each within its cap, that comes to
# more than any snapshot holds (256 MiB in all: 1,024 processors of 64 KiB
# topology files, holes) is refused whole, named.
bad too-much 'mkdir -p sys/devices/system/cpu && cd sys/devices/system/cpu && echo 0-1023 >online &&
  seq -f cpu%g/topology 0 1023 | xargs mkdir -p && for f in physical_package_id core_id die_id \
  thread_siblings_list core_siblings_list core_cpus_list package_cpus_list; do
  seq -f "cpu%g/topology/$f" 0 1023 | xargs truncate -s 64K; done' \
  "cannot read the snapshot: s: larger than 256 MiB in all, more than any snapshot"
bad not-a-snapshot 'rm -rf ./* && mkdir other' "cannot read the snapshot: not a snapshot: s holds none"

# /proc is no snapshot either.
timeout 20 "$tool" --snapshot /proc >/dev/null 2>err
[ $? = 2 ] && grep -q "not a snapshot: /proc" err || { echo "--snapshot /proc: $(cat err)"; failed=1; }

exit $failed
