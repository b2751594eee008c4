#!/bin/sh
# The kernel row of a live run against lscpu on this machine: sockets,
# cores and online processors (lscpu -p lists the online ones). Skipped
# (77) without lscpu.
#
#   live_lscpu.sh TOOL
set -u
command -v lscpu >/dev/null 2>&1 || { echo "lscpu is not installed: skipped"; exit 77; }
parsed=$(lscpu -p=socket,core,cpu) || exit 1
want=$(printf '%s\n' "$parsed" | awk -F, '!/^#/ { s[$1]; c[$1 "," $2]; n++ }
  END { printf "\"packages\": %d, \"cores\": %d, \"logicalProcessors\": %d", length(s), length(c), n }')
got=$("$1" --json-lines | sed -n 's/.*"kernel": {\([^}]*\)}.*/\1/p' |
  sed 's/, "smt".*//')
if [ "$got" != "$want" ]; then
  echo "kernel row: $got"
  echo "lscpu:      $want"
  exit 1
fi
echo "kernel row and lscpu agree: $got"
