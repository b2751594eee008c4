#!/bin/sh
# Snapshots and the peers' tools.
#   interop.sh TOOL lscpu: lscpu --sysroot reads a saved snapshot and counts
#     the processors this machine has.
#   interop.sh TOOL hwloc: a cpuid/ folder written by hwloc-gather-cpuid
#     replays as the saver's own does: with a /proc/cpuinfo without physical
#     ids the default detector's CPUID estimate writes the same bytes; the
#     folder alone is accepted too.
# Skipped (status 77) when the peer's tool is not installed.
set -u
tool=$1 peer=$2
command -v "$( [ "$peer" = lscpu ] && echo lscpu || echo hwloc-gather-cpuid)" >/dev/null ||
  { echo "$peer is not installed: skipped"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$tool" --save "$work/snap" >/dev/null || exit 1

if [ "$peer" = lscpu ]; then
  got=$(lscpu --sysroot "$work/snap" -p=cpu | grep -vc '^#')
  want=$(getconf _NPROCESSORS_CONF)
  [ "$got" = "$want" ] || { echo "lscpu --sysroot counts $got processors, expected $want"; exit 1; }
  exit 0
fi

mv "$work/snap/proc/cpuinfo" "$work/cpuinfo"
grep -v '^physical id' "$work/cpuinfo" >"$work/snap/proc/cpuinfo"
cp -R "$work/snap" "$work/peer"
rm -r "$work/peer/cpuid"
hwloc-gather-cpuid -s "$work/peer/cpuid" >/dev/null || exit 1
"$tool" -d2 --snapshot "$work/snap" >/dev/null 2>"$work/own.err" || exit 1
"$tool" -d2 --snapshot "$work/peer" >/dev/null 2>"$work/peer.err" || exit 1
grep -q 'Algorithm 7.1 cpuid$' "$work/own.err" || { echo "the replay did not reach CPUID"; exit 1; }
cmp "$work/own.err" "$work/peer.err" || { diff "$work/own.err" "$work/peer.err"; exit 1; }
# The folder alone is a snapshot of CPUID only: every row says what it lacks.
rows=$("$tool" --all --snapshot "$work/peer/cpuid" | grep -c 'which the snapshot does not hold$')
[ "$rows" = 5 ] || { echo "the folder alone: $rows rows say what they lack, expected 5"; exit 1; }
