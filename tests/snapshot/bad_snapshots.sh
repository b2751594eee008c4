#!/bin/sh
# Bad, hostile and half-written snapshots, as a fleet audit meets them: each
# case copies a good one and breaks one thing; the bad input is named on
# standard error in one line (file and line), with exit status 2, the good
# input after it is still reported, and nothing hangs (every run under
# timeout 20). And --save refuses a directory that is not new or empty, or
# is a link.
#
#   bad_snapshots.sh TOOL SNAPSHOTS_DIR TABLE (bad_snapshots.txt)
set -u
tool=$1 good=$2/vmware-2 table=$(realpath "$3")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" || exit 1
failed=0

# bad NAME 'SHELL COMMAND RUN IN s/' 'STANDARD ERROR, A PATTERN OF THE WHOLE LINE'
bad() {
  rm -rf s && cp -R "$good" s && (cd s && eval "$2")
  timeout 20 "$tool" --all --snapshot s "$good" </dev/null >out 2>err
  status=$?
  if [ "$status" != 2 ] || [ "$(wc -l <err)" != 1 ] || ! grep -qx "xrprocdetect: $3" err ||
    ! grep -q "^Machine  *$good (a snapshot)" out; then
    printf '%s: status %s, standard error\n%s\nexpected\n  %s\n' "$1" "$status" "$(cat err)" "$3"
    failed=1
  fi
}
topology() { mkdir -p sys/devices/system/cpu && cd sys/devices/system/cpu; }
cgroup() {
  mkdir -p proc/self sys/fs/cgroup/cpu && topology && echo 0-1 >online && cd - >/dev/null &&
    printf '0::/\n4:cpu:/\n' >proc/self/cgroup && printf '%s\n' '1 0 0:1 / /sys/fs/cgroup rw - cgroup2 c rw' \
    '2 0 0:2 / /sys/fs/cgroup/cpu rw - cgroup c rw,cpu' >proc/self/mountinfo
}
mkdir outside && echo 987654 1 >outside/cpu.max
while IFS= read -r entry; do
  case "$entry" in '' | '#'*) continue ;; esac
  rest=${entry#* @@ }
  bad "${entry%% @@ *}" "${rest%% @@ *}" "${rest#* @@ }"
done <"$table"
# Reached through a link, a FIFO (the table's last case, left in s/) is
# refused without being opened: a writer waiting for a reader still waits.
sh -c 'exec 3>s/fifo' & writer=$!; sleep 1; "$tool" --snapshot s >/dev/null 2>&1; sleep 1
kill $writer 2>/dev/null || { echo "fifo-link: the FIFO was opened"; failed=1; }

# Nothing is read from outside the tree, through a control group or a mount
# point: not outside/cpu.max's quota.
inside() {
  rm -rf s && mkdir -p s/proc/self s/sys/fs/cgroup s/sys/devices/system/cpu && (cd s &&
    echo 0-3 >sys/devices/system/cpu/online && echo "0::${3:-/}" >proc/self/cgroup &&
    echo "35 24 0:30 / ${4:-/sys/fs/cgroup} rw - cgroup2 cgroup2 rw" >proc/self/mountinfo &&
    eval "$2") && timeout 20 "$tool" --all --snapshot s >out 2>&1
  grep -q 987654 out || ! grep -q "^Machine  *s (a snapshot)" out && { echo "$1: $(cat out)"; failed=1; }
}
inside cgroup-up : /../../../../outside
inside mount-up : / /../outside
inside mount-at-root : "$work/outside" /
# /proc is no snapshot either.
timeout 20 "$tool" --snapshot /proc >/dev/null 2>err
[ $? = 2 ] && grep -q "not a snapshot: /proc" err || { echo "--snapshot /proc: $(cat err)"; failed=1; }

# --save: never into a directory that holds something, nor through a link.
mkdir full && touch full/mine
got=$("$tool" --save full 2>&1)
[ $? = 2 ] && [ "$got" = "xrprocdetect: cannot save the snapshot: full: not empty; a snapshot goes into a new or empty directory" ] &&
  [ -z "$(ls -A full | grep -v mine)" ] || { echo "--save into a full directory: $got"; failed=1; }
# Named with a trailing slash, as a shell completes it, a link is still a
# link: the slash would have it followed.
mkdir empty && ln -s empty link
for name in link link/ link//; do
  got=$("$tool" --save $name 2>&1)
  [ $? = 2 ] && [ -z "$(ls -A empty)" ] && echo "$got" | grep -q "symbolic link" ||
    { echo "--save through a link named $name: $got"; failed=1; }
done
exit $failed
