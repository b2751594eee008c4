#!/bin/sh
# A budget kept by a running process sees each change as it happens: the
# tool watches its budget (--watch -J) in a cgroup v1 group c inside p, and
# the test changes c's quota, then p's (c's lifted: v1 holds a child's quota
# to its parent's, so only a parent of an unlimited child can be tighter),
# then c's cpuset, then the watcher's affinity, then moves it to another
# group; each change must show in the next line within the time it allows. Needs root and writable
# cgroup v1 cpu and cpuset hierarchies; skips (77) otherwise. Removes what
# it makes, whatever happens.
#
#   live_budget.sh TOOL
set -u
tool=$1 v1=/sys/fs/cgroup
[ "$(id -u)" = 0 ] && [ -w $v1/cpu/cgroup.procs ] && [ -w $v1/cpuset/cgroup.procs ] ||
  { echo "skipped: needs root and writable cgroup v1 cpu and cpuset hierarchies"; exit 77; }
online=$(cat /sys/devices/system/cpu/online)
set -- $(python3 -c 'import os; print(*sorted(os.sched_getaffinity(0))[:2])')
first=$1 second=${2:-}
[ -n "$second" ] || { echo "skipped: one processor"; exit 77; }
top=xrprocdetect-budget-$$ out=$(mktemp) pid=
cleanup() {
  [ -z "$pid" ] || kill "$pid" 2>/dev/null
  wait 2>/dev/null
  for h in cpu cpuset; do
    rmdir "$v1/$h/$top/p/c" "$v1/$h/$top/p" "$v1/$h/$top/other" "$v1/$h/$top" 2>/dev/null
  done
  rm -f "$out"
}
trap cleanup EXIT
for h in cpu cpuset; do
  for g in "$top" "$top/p" "$top/p/c" "$top/other"; do
    mkdir "$v1/$h/$g" || exit 1
    [ $h = cpu ] || { cat $v1/cpuset/cpuset.cpus >"$v1/$h/$g/cpuset.cpus" &&
      cat $v1/cpuset/cpuset.mems >"$v1/$h/$g/cpuset.mems"; } || exit 1
  done
done
echo 20000 >"$v1/cpu/$top/other/cpu.cfs_quota_us"
# The watcher starts in p/c.
sh -c 'for h in cpu cpuset; do echo $$ >"$1/$h/$2/p/c/cgroup.procs"; done; exec "$3" --watch=0.02 -J' \
  sh "$v1" "$top" "$tool" >"$out" &
pid=$!
failed=0
# expect WHAT PATTERN: within 3 s the last line matches PATTERN.
expect() {
  for _ in $(seq 60); do
    tail -n 1 "$out" | grep -q "$2" && { echo "ok: $1: $(tail -n 1 "$out")"; return; }
    sleep 0.05
  done
  echo "FAILED: $1: expected $2, got: $(tail -n 1 "$out")"
  failed=1
}
expect "start" "\"usableCpus\": \"$online\".*\"cpuQuota\": null"
echo 150000 >"$v1/cpu/$top/p/c/cpu.cfs_quota_us"
expect "the group's quota" '"cpuQuota": 1.5, "effectiveProcessors": 2'
echo -1 >"$v1/cpu/$top/p/c/cpu.cfs_quota_us" && echo 100000 >"$v1/cpu/$top/p/cpu.cfs_quota_us"
expect "a parent's quota, tighter" '"cpuQuota": 1, "effectiveProcessors": 1'
echo "$first" >"$v1/cpuset/$top/p/c/cpuset.cpus"
expect "the cpuset" "\"usableCpus\": \"$first\", \"usableProcessors\": 1"
cat $v1/cpuset/cpuset.cpus >"$v1/cpuset/$top/p/c/cpuset.cpus"
taskset -p -c "$second" "$pid" >/dev/null
expect "the affinity" "\"usableCpus\": \"$second\", \"usableProcessors\": 1, \"cpuQuota\": 1,"
for h in cpu cpuset; do echo "$pid" >"$v1/$h/$top/other/cgroup.procs"; done
expect "a move to another group" '"cpuQuota": 0.2, "effectiveProcessors": 1'
exit $failed
