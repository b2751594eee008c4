#!/usr/bin/env bash
# Counts, with strace -f -c, the system calls of reading one system root DIR:
#   topology()   Source::snapshot(DIR), then topology()
#                (xrprocdetector_topology_bench --once=xrprocdetector DIR)
#   hwloc        hwloc_topology_load() with HWLOC_FSROOT=DIR (--once=hwloc)
#   xrprocdetect xrprocdetect --snapshot DIR --cpus
#   lstopo       lstopo-no-graphics -i DIR --if fsroot
# For each: all its system calls, the files and folders it opened (open,
# openat and openat2 that succeeded), its reads (read, pread64), and the
# calls per opening and per read. The first two are net
# of the same program reading nothing (--once=none), so that they count the
# read alone; the last two are whole processes. Run by hand:
#
#   bench/count_syscalls.sh BUILD_DIR DIR
#
# BUILD_DIR (such as build/bench) must hold bench/xrprocdetector_topology_bench
# and tools/xrprocdetect. strace is installed with apt-get when missing.
set -euo pipefail

if [[ $# -ne 2 ]]; then
  echo "usage: $0 BUILD_DIR DIR" >&2
  exit 2
fi
build=$1
dir=$2
bench="$build/bench/xrprocdetector_topology_bench"
tool="$build/tools/xrprocdetect"
for f in "$bench" "$tool"; do
  [[ -x "$f" ]] || { echo "$0: $f is missing" >&2; exit 2; }
done
if ! command -v strace >/dev/null; then
  DEBIAN_FRONTEND=noninteractive apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq strace >/dev/null
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/xrprocdetector-strace-XXXXXX")
trap 'rm -rf "$work"' EXIT

# "CALLS OPENED READS" of one command, from strace's summary: the total,
# the opening calls less their errors, and the reads.
count() {
  strace -f -c -o "$work/summary" "$@" >/dev/null 2>&1
  awk '$NF == "total" { calls = $4 }
       $NF ~ /^(open|openat|openat2)$/ { opened += $4 - (NF == 6 ? $5 : 0) }
       $NF ~ /^(read|pread64)$/ { reads += $4 }
       END { print calls, opened + 0, reads + 0 }' "$work/summary"
}

row() {
  awk -v name="$1" -v calls="$2" -v opened="$3" -v reads="$4" 'BEGIN {
    printf "%-14s %8d %8d %8d %12.2f %10.2f\n", name, calls, opened, reads,
           (opened > 0 ? calls / opened : 0), (reads > 0 ? calls / reads : 0) }'
}

read -r none_calls none_opened none_reads < <(count "$bench" --once=none "$dir")
printf '%-14s %8s %8s %8s %12s %10s\n' reader calls opened reads calls/opened calls/read
for how in xrprocdetector hwloc; do
  read -r calls opened reads < <(count "$bench" --once=$how "$dir")
  row "$([[ $how == hwloc ]] && echo hwloc || echo "topology()")" \
    $((calls - none_calls)) $((opened - none_opened)) $((reads - none_reads))
done
read -r calls opened reads < <(count "$tool" --snapshot "$dir" --cpus)
row xrprocdetect "$calls" "$opened" "$reads"
read -r calls opened reads < <(count lstopo-no-graphics -i "$dir" --if fsroot)
row lstopo "$calls" "$opened" "$reads"
