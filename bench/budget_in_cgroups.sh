#!/bin/sh
# Runs the budget benchmark where a long-running host in a container sits:
# three cgroup v1 levels deep (cpu and cpuset hierarchies), a CPU quota on
# each of the two upper levels, and counts the system calls of read() with
# strace. Needs root and writable cgroup v1 cpu and cpuset hierarchies;
# removes what it made.
#
#   bench/budget_in_cgroups.sh BENCH_BUILD_DIR
set -eu
bench=$1/bench/xrprocdetector_budget_bench
cpu=/sys/fs/cgroup/cpu/xrpd-bench
cpuset=/sys/fs/cgroup/cpuset/xrpd-bench
cleanup() {
  echo $$ >/sys/fs/cgroup/cpu/cgroup.procs 2>/dev/null || true
  echo $$ >/sys/fs/cgroup/cpuset/cgroup.procs 2>/dev/null || true
  rmdir "$cpu/a/b" "$cpu/a" "$cpu" "$cpuset/a/b" "$cpuset/a" "$cpuset" 2>/dev/null || true
}
trap cleanup EXIT
mkdir -p "$cpu/a/b" "$cpuset/a/b"
echo 200000 >"$cpu/cpu.cfs_quota_us"
echo 150000 >"$cpu/a/cpu.cfs_quota_us"
for dir in "$cpuset" "$cpuset/a" "$cpuset/a/b"; do
  cat /sys/fs/cgroup/cpuset/cpuset.cpus >"$dir/cpuset.cpus"
  cat /sys/fs/cgroup/cpuset/cpuset.mems >"$dir/cpuset.mems"
done
echo $$ >"$cpu/a/b/cgroup.procs"
echo $$ >"$cpuset/a/b/cgroup.procs"
"$bench" --benchmark_repetitions=10 --benchmark_report_aggregates_only=true
# System calls: strace counts a run of one benchmark, whose iterations the
# benchmark reports; read() is what is left after the rest of the run.
strace -f -c -o "$1/budget.strace" "$bench" --benchmark_filter=budgetRead \
  --benchmark_min_time=0.2 >"$1/budget.out"
cat "$1/budget.out" "$1/budget.strace"
