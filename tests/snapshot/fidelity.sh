#!/bin/sh
# A snapshot is a recording of what every reader read, so it replays
# exactly: the debug bytes at level 2 (with --summary) and the JSON fields of
# --all, the kernel object with each processor's place, the sets, the
# hypervisor and the container included, and what names the machine (host
# name, kernel release, processor model and vendor), are those of the live
# run (the JSON's "input", "source", "savedAt" and "savedBy" aside). With
# "cpuid" the same is done in a private mount namespace whose /proc/cpuinfo
# has no physical id, so that the default detector's CPUID estimate runs
# live and in the replay (root and unshare needed; otherwise skipped with
# status 77).
#
#   fidelity.sh TOOL [cpuid]
set -u
tool=$1
mode=${2:-}
# What tells the live run from the replay, left aside; the machine's names
# must be there, and the same.
aside='s/"input": "[^"]*", "source": "[a-z]*", //; s/"savedAt": [^,]*, "savedBy": [^,]*, //'

# Saves, runs live: the commands of one namespace.
run() {
  "$tool" --save "$1/snap" >/dev/null || exit 2
  "$tool" --all -d2 --summary >/dev/null 2>"$1/live.err" || exit 2
  "$tool" --all -J | sed -E "$aside" >"$1/live.json" || exit 2
}
if [ "$mode" = inside ]; then
  run "$3"
  exit 0
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
if [ "$mode" = cpuid ]; then
  if [ "$(id -u)" -ne 0 ] || ! unshare -m true 2>/dev/null; then
    echo "needs root and mount namespaces: skipped"
    exit 77
  fi
  grep -v '^physical id' /proc/cpuinfo >"$work/cpuinfo"
  unshare -m sh -c 'mount --make-rprivate / && mount --bind "$3/cpuinfo" /proc/cpuinfo &&
    sh "$1" "$2" inside "$3"' sh "$0" "$tool" "$work" || exit 1
  grep -q ' cpuid$' "$work/live.err" || { echo "the live run did not reach CPUID"; exit 1; }
else
  run "$work"
fi

# (That leaves 4 and 0xb are saved sub-leaf by sub-leaf, up to their
# terminators: Snapshot.SavedOnIntelAndAmdProcessorsAndReplayedExactly.)
# Each dump was taken on its own processor: no two share an initial APIC id
# (leaf 1's EBX, bits 24 to 31).
dup=$(for d in "$work"/snap/cpuid/pu*; do
  echo $((0x$(awk '$1 == 1 && $2 == 1 { print $8 }' "$d") >> 24)); done | sort | uniq -d)
[ -z "$dup" ] || { echo "two dumps share the APIC id $dup"; exit 1; }
failed=0
"$tool" --all -d2 --summary --snapshot "$work/snap" >/dev/null 2>"$work/replay.err"
diff "$work/live.err" "$work/replay.err" || failed=1
"$tool" --all -J --snapshot "$work/snap" | sed -E "$aside" >"$work/replay.json"
diff "$work/live.json" "$work/replay.json" || failed=1
grep -q '"hostname": "[^"]' "$work/replay.json" || { echo "the replay names no host"; failed=1; }
exit $failed
