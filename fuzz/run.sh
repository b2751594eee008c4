#!/usr/bin/env bash
# fuzz/run.sh BUILD_DIR SECONDS
#
# Runs every libFuzzer target of a fuzz build (cmake --preset fuzz &&
# cmake --build --preset fuzz) for SECONDS each, seeded with the fixtures of
# tests/data. A crash, leak, sanitizer report or broken check fails the run;
# the input that did it is kept under BUILD_DIR/fuzz-artifacts/NAME/.
set -euo pipefail
[[ $# -eq 2 && $2 =~ ^[0-9]+$ ]] || { echo "usage: $0 BUILD_DIR SECONDS" >&2; exit 2; }
build=$(cd "$1" && pwd) here=$(cd "$(dirname "$0")" && pwd) status=0 ran=0
for target in "$build"/fuzz/fuzz_*; do
  [[ -f $target && -x $target ]] || continue
  name=$(basename "$target") ran=$((ran + 1))
  corpus=$build/fuzz-corpus/$name artifacts=$build/fuzz-artifacts/$name
  mkdir -p "$corpus" "$artifacts"
  cp "$here"/../tests/data/*.cpuinfo "$corpus"/
  # The snapshot readers also start from the snapshots' own files.
  [[ $name != fuzz_snapshot_readers ]] ||
    find "$here/../tests/data/snapshots" -type f -exec sh -c \
      'cp "$1" "$2/snapshot-$(echo "$1" | tr / _)"' sh {} "$corpus" \;
  # The readers take inputs up to a CPUID dump's cap; the others' inputs
  # are texts and trees of a few kilobytes.
  max_len=16384
  [[ $name != fuzz_snapshot_readers ]] || max_len=4194304
  echo "=== $name: $2 s"
  "$target" "$corpus" -max_total_time="$2" -timeout=20 -rss_limit_mb=2048 -max_len=$max_len \
    -dict="$here/cpuinfo.dict" -artifact_prefix="$artifacts/" >"$artifacts.log" 2>&1 ||
    { echo "=== $name FAILED; the log's end:"; tail -n 40 "$artifacts.log"; status=1; }
done
[[ $ran -gt 0 ]] || { echo "$0: no fuzz targets under $build/fuzz" >&2; exit 2; }
exit $status
