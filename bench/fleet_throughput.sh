#!/usr/bin/env bash
# How many snapshots a second xrprocdetect audits in one process, beside one
# lscpu --sysroot process per snapshot on the same trees:
#   xrprocdetect --all -J --snapshot DIR...   (JSON Lines, every generation
#                                              and the kernel row)
#   xrprocdetect --all --tally --snapshot DIR...
#   for DIR: lscpu --sysroot DIR
# Each snapshot is a synthetic machine of 64 logical processors (2 packages,
# 16 cores each, 2 threads a core) written by xrprocdetector_make_machine,
# copied into COUNT directories of their own. Run by hand.
#
#   bench/fleet_throughput.sh [BUILD_DIR [COUNT [PROCESSORS]]]
#
# BUILD_DIR (default build/bench) must hold tools/xrprocdetect and
# bench/xrprocdetector_make_machine:
#   cmake --preset bench && cmake --build --preset bench
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build/bench}
count=${2:-1000}
processors=${3:-64}
tool="$build/tools/xrprocdetect"
maker="$build/bench/xrprocdetector_make_machine"
for f in "$tool" "$maker"; do
  if [[ ! -x "$f" ]]; then
    echo "$0: $f is missing; build with: cmake --preset bench && cmake --build --preset bench" >&2
    exit 2
  fi
done

work=$(mktemp -d "${TMPDIR:-/tmp}/xrprocdetector-fleet-XXXXXX")
trap 'rm -rf "$work"' EXIT
"$maker" "$processors" "$work/model" >/dev/null
mkdir "$work/fleet"
for ((i = 0; i < count; i++)); do
  cp -r "$work/model" "$work/fleet/m$i"
done
dirs=("$work"/fleet/m*)

now() { date +%s.%N; }
# rate NAME START END: inputs a second over the whole fleet.
rate() {
  awk -v n="$count" -v s="$2" -v e="$3" -v name="$1" \
    'BEGIN { printf "%-44s %8.0f inputs/s  (%d in %.3f s)\n", name, n / (e - s), n, e - s }'
}

# A first pass reads the trees into the page cache for every contender.
"$tool" --all --tally --snapshot "${dirs[@]}" >/dev/null

start=$(now)
"$tool" --all -J --snapshot "${dirs[@]}" >"$work/lines"
end=$(now)
lines=$(wc -l <"$work/lines")
if [[ $lines -ne $((count * 5)) ]]; then
  echo "$0: $lines JSON lines, expected $((count * 5))" >&2
  exit 1
fi
rate "xrprocdetect --all -J (JSON Lines)" "$start" "$end"

start=$(now)
"$tool" --all --tally --snapshot "${dirs[@]}" >/dev/null
end=$(now)
rate "xrprocdetect --all --tally" "$start" "$end"

if command -v lscpu >/dev/null; then
  start=$(now)
  for d in "${dirs[@]}"; do
    lscpu --sysroot "$d" >/dev/null
  done
  end=$(now)
  rate "lscpu --sysroot, one process per input" "$start" "$end"
else
  echo "lscpu is not installed: not compared"
fi
