#!/usr/bin/env bash
# Runs every libFuzzer target of a fuzz build for SECONDS each, seeded with
# the /proc/cpuinfo fixtures of tests/data. Any crash, leak, sanitizer report
# or broken check fails the run (non-zero exit); the input that did it is
# kept under BUILD_DIR/fuzz-artifacts/.
#
#   cmake --preset fuzz && cmake --build --preset fuzz
#   fuzz/run.sh build/fuzz 45
set -euo pipefail

if [[ $# -ne 2 || ! "$2" =~ ^[0-9]+$ ]]; then
  echo "usage: $0 BUILD_DIR SECONDS" >&2
  exit 2
fi
build=$(cd "$1" && pwd)
seconds=$2
here=$(cd "$(dirname "$0")" && pwd)
seeds="$here/../tests/data"

targets=()
for t in "$build"/fuzz/fuzz_*; do
  [[ -x "$t" && -f "$t" ]] && targets+=("$t")
done
if [[ ${#targets[@]} -eq 0 ]]; then
  echo "$0: no fuzz targets under $build/fuzz (configure with --preset fuzz)" >&2
  exit 2
fi

status=0
for target in "${targets[@]}"; do
  name=$(basename "$target")
  # A scratch corpus per target, seeded afresh; never part of the tree.
  corpus="$build/fuzz-corpus/$name"
  artifacts="$build/fuzz-artifacts/$name"
  mkdir -p "$corpus" "$artifacts"
  cp "$seeds"/*.cpuinfo "$corpus"/
  # And two made here that reach past the tables' limits: 300 processors in
  # 20 packages, and one processor with 300 core ids.
  for ((n = 0; n < 300; n++)); do
    printf 'processor\t: %d\nphysical id\t: %d\ncore id\t\t: %d\ncpu cores\t: %d\n\n' \
      "$n" $((n % 20)) $((n % 16)) $((n % 7))
  done >"$corpus/seed-300-processors"
  { printf 'processor\t: 0\nphysical id\t: 0\ncpu cores\t: 4\n'
    for ((n = 0; n < 300; n++)); do printf 'core id\t\t: %d\n' "$n"; done
  } >"$corpus/seed-300-core-ids"
  # The snapshot readers also start from the snapshots' own files.
  if [[ $name == fuzz_snapshot_readers ]]; then
    find "$seeds/snapshots" -type f -exec sh -c 'cp "$1" "$2/snapshot-$(echo "$1" | tr / _)"' \
      sh {} "$corpus" \;
  fi
  echo "=== $name: ${seconds}s"
  if ! "$target" "$corpus" \
      -max_total_time="$seconds" -timeout=20 -rss_limit_mb=2048 -max_len=16384 \
      -dict="$here/cpuinfo.dict" -artifact_prefix="$artifacts/" -print_final_stats=1 \
      >"$build/fuzz-artifacts/$name.log" 2>&1; then
    echo "=== $name FAILED; the log's end:"
    tail -n 40 "$build/fuzz-artifacts/$name.log"
    status=1
  else
    grep -E '^(stat::number_of_executed_units|stat::peak_rss_mb)' \
      "$build/fuzz-artifacts/$name.log" || true
  fi
done
exit $status
