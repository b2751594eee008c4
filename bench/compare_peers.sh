#!/usr/bin/env bash
# Times whole processes on the same synthetic machines of 8, 64, 256 and
# 1024 logical processors:
#   xrprocdetect --cpuinfo DIR/proc/cpuinfo --algorithm 7.0
#   lscpu --sysroot DIR
#   lstopo-no-graphics --of console, with HWLOC_COMPONENTS=linux,stop and
#     HWLOC_FSROOT=DIR (without the first, hwloc reads the real machine)
#   /bin/true, the cost of starting a process at all
# and prints each mean time with its ratio to xrprocdetect's. Run by hand.
#
#   bench/compare_peers.sh [BUILD_DIR [SIZES...]]
#
# BUILD_DIR (default build/bench) must hold tools/xrprocdetect and
# bench/xrprocdetector_make_machine, which writes each machine as
# DIR/proc/cpuinfo plus the sysfs files lscpu and hwloc read:
#   cmake --preset bench && cmake --build --preset bench
# hwloc (hwloc-nox) and hyperfine are installed with apt-get when missing.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
build=${1:-$here/../build/bench}
shift || true
sizes=("$@")
[[ ${#sizes[@]} -gt 0 ]] || sizes=(8 64 256 1024)

tool="$build/tools/xrprocdetect"
maker="$build/bench/xrprocdetector_make_machine"
for f in "$tool" "$maker"; do
  if [[ ! -x "$f" ]]; then
    echo "$0: $f is missing; build with: cmake --preset bench && cmake --build --preset bench" >&2
    exit 2
  fi
done

need=()
command -v lstopo-no-graphics >/dev/null || need+=(hwloc-nox)
command -v hyperfine >/dev/null || need+=(hyperfine)
command -v lscpu >/dev/null || need+=(util-linux)
if [[ ${#need[@]} -gt 0 ]]; then
  echo "installing ${need[*]}"
  DEBIAN_FRONTEND=noninteractive apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${need[@]}" >/dev/null
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/xrprocdetector-peers-XXXXXX")
trap 'rm -rf "$work"' EXIT

for n in "${sizes[@]}"; do
  "$maker" "$n" "$work/m$n" >/dev/null
done

# xrprocdetect reads the machine only if it knows --cpuinfo and --algorithm:
# then two different machines give two different reports.
tool_args() { echo "--cpuinfo $work/m$1/proc/cpuinfo --algorithm 7.0"; }
have_tool=no
if [[ ${#sizes[@]} -ge 1 ]] && "$tool" $(tool_args "${sizes[0]}") >"$work/a" 2>&1; then
  "$maker" 2 "$work/m2" >/dev/null
  if "$tool" --cpuinfo "$work/m2/proc/cpuinfo" --algorithm 7.0 >"$work/b" 2>&1 &&
     ! cmp -s "$work/a" "$work/b"; then
    have_tool=yes
  fi
fi
if [[ $have_tool == no ]]; then
  echo "note: $tool does not read --cpuinfo FILE --algorithm 7.0 yet; timing the peers only"
fi

printf '\n%-8s %-12s %10s %10s %8s\n' "CPUs" "command" "mean ms" "stddev" "ratio"
for n in "${sizes[@]}"; do
  dir="$work/m$n"
  # Each peer must see the synthetic machine, not this one.
  cpus=$(lscpu --sysroot "$dir" | awk -F: '/^CPU\(s\):/ {gsub(/ /, "", $2); print $2}')
  pus=$(HWLOC_COMPONENTS=linux,stop HWLOC_FSROOT="$dir" lstopo-no-graphics --of console |
        grep -c ' PU L#')
  if [[ "$cpus" != "$n" || "$pus" != "$n" ]]; then
    echo "$0: on the $n-CPU machine lscpu saw $cpus CPUs and lstopo $pus" >&2
    exit 1
  fi
  cmds=()
  names=()
  if [[ $have_tool == yes ]]; then
    names+=(xrprocdetect); cmds+=("$tool $(tool_args "$n")")
  fi
  names+=(lscpu); cmds+=("lscpu --sysroot $dir")
  names+=(lstopo); cmds+=("env HWLOC_COMPONENTS=linux,stop HWLOC_FSROOT=$dir lstopo-no-graphics --of console")
  names+=(true); cmds+=("/bin/true")
  args=()
  for i in "${!cmds[@]}"; do
    args+=(-n "${names[$i]}" "${cmds[$i]}")
  done
  hyperfine -N --style none --warmup 5 --min-runs 40 --export-json "$work/t$n.json" \
    "${args[@]}" >/dev/null 2>&1
  python3 - "$work/t$n.json" "$n" <<'PY'
import json, sys
results = json.load(open(sys.argv[1]))["results"]
base = next((r["mean"] for r in results if r["command"] == "xrprocdetect"), None)
for r in results:
    ratio = "%.2fx" % (r["mean"] / base) if base else "-"
    print("%-8s %-12s %10.2f %10.2f %8s" % (sys.argv[2], r["command"], r["mean"] * 1e3,
                                           r["stddev"] * 1e3, ratio))
PY
done
echo
echo "ratio: mean time divided by xrprocdetect's on the same machine"
