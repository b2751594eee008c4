#!/bin/sh
# fleet_queries.sh TOOL DATA_DIR TOOL_DOC
#
# The fleet audit of the tool's documentation, run as it is written there:
# the JSON Lines of seven system roots of the tests, gathered as fleet/,
# loaded into SQLite by the doc's fleet.sql (its one sql block), must give
# the answers the doc shows after it, worked out by hand from the trees.
# Skipped (77) without sqlite3 3.38 or later, which has ->>.
set -u
tool=$1 data=$2 doc=$3
command -v sqlite3 >/dev/null || { echo "skipped: no sqlite3 (apt-get install sqlite3)"; exit 77; }
[ "$(sqlite3 :memory: "SELECT sqlite_version() >= '3.38'")" = 1 ] ||
  { echo "skipped: sqlite3 older than 3.38"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/fleet"
for tree in bare-metal-2 kvm-dmi-2 hyperv-dmi-2 understated-cores-4 two-package-smt-8 \
  slurm-cpuset-noprefix-16 kubernetes-pod-4; do
  ln -s "$data/sysroots/$tree" "$work/fleet/$tree"
done
sed -n '/^```sql$/,/^```$/p' "$doc" | sed '1d;$d' >"$work/fleet.sql"
cd "$work" || exit 1
"$tool" --all -J --snapshot fleet/* >fleet.jsonl || exit 1
sqlite3 :memory: <fleet.sql >got.txt 2>&1
# The answers the doc shows, worked out by hand: each tree's first "model
# name" (understated-cores-4 and two-package-smt-8 share theirs);
# understated-cores-4 (db-01) says "cpu cores: 2" in /proc/cpuinfo, where
# its four processors are each a core of their own in sysfs;
# slurm-cpuset-noprefix-16 (hpc-01) runs in a cpuset of 2-5 out of 16
# online; kubernetes-pod-4 (api-01) under cpu.max 200000 100000, a quota of
# 2 out of 4. No quota: an empty column.
awk '/^```sql$/ { sql = 1 } sql && /^```text$/ { text = 1; next } text && /^```$/ { exit }
  text' "$doc" >want.txt
grep -q '^db-01|1/1|2/4|4/4$' want.txt || { echo "no answers in the doc"; exit 1; }
diff -u want.txt got.txt
