#!/bin/sh
# same.sh SYSROOTS OLD_C CURRENT_C OLD_CPP CURRENT_CPP: each pair of hosts
# prints the same on every system root, and neither fails.
dir=$1
shift
failed=0
count=0
for root in "$dir"/*/; do
  count=$((count + 1))
  for pair in "$1 $2" "$3 $4"; do
    old=${pair% *}
    current=${pair#* }
    a=$("$old" "$root" 2>&1) || { echo "$(basename "$old") failed on $root: $a"; failed=1; }
    b=$("$current" "$root" 2>&1) || { echo "$(basename "$current") failed on $root: $b"; failed=1; }
    [ "$a" = "$b" ] || { echo "$(basename "$old") and $(basename "$current") differ on $root"; failed=1; }
  done
done
[ $failed = 0 ] && echo "$count system roots: the 2.0.0 hosts answer as the current ones"
exit $failed
