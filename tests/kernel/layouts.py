#!/usr/bin/env python3
"""Runs xrprocdetect -J over every tree of layouts.txt (real machines'
layouts, one JSON line an input) and checks each kernel object against the
answers worked out by hand from the tree's files: packages, cores, logical
processors, the online and usable sets, the CPU quota, the kinds of core,
the hypervisor's vendor and virtualization type, and the container; and,
where lscpu is installed, that the vendor is lscpu's wherever lscpu names
one.

    layouts.py TOOL SYSROOTS_DIR LAYOUTS_FILE
"""
import json
import os
import shutil
import subprocess
import sys

tool, sysroots, table = sys.argv[1:4]
FIELDS = ["packages", "cores", "logicalProcessors", "onlineCpus", "usableCpus", "cpuQuota",
          "kinds", "hypervisorVendor", "virtualizationType", "container"]


def value(field, word):
    if word == "-":
        return None
    if field in ("packages", "cores", "logicalProcessors", "kinds"):
        return int(word)
    return float(word) if field == "cpuQuota" else word


rows = [line.split() for line in open(table, encoding="utf-8")
        if line.strip() and not line.startswith("#")]
done = subprocess.run([tool, "-a", "5.3", "--json-lines", "--snapshot"] + [r[0] for r in rows],
                      cwd=sysroots, capture_output=True, text=True, check=False)
failures = [] if done.returncode == 0 else ["exit status %d: %s" % (done.returncode, done.stderr)]
lines = [json.loads(line) for line in done.stdout.splitlines()]
for row, got in zip(rows, lines):
    kernel = dict(got["kernel"], kinds=len(got["kernel"]["coreKinds"] or [None]))
    expected = {f: value(f, w) for f, w in zip(FIELDS, row[1:])}
    actual = {f: kernel[f] for f in FIELDS}
    if actual != expected:
        failures.append("%s: %s, expected %s" % (row[0], actual, expected))
    lscpu = shutil.which("lscpu") and subprocess.run(
        ["lscpu", "--sysroot", os.path.join(sysroots, row[0])], capture_output=True, text=True,
        check=False, env=dict(os.environ, LC_ALL="C")).stdout
    for line in (lscpu or "").splitlines():
        if line.startswith("Hypervisor vendor:") and line.split(":", 1)[1].strip() != \
                kernel["hypervisorVendor"]:
            failures.append("%s: lscpu says %s, we say %s" % (row[0], line, kernel["hypervisorVendor"]))
if len(lines) != len(rows):
    failures.append("%d JSON lines for %d trees" % (len(lines), len(rows)))
for failure in failures:
    print(failure)
print("%d trees, %d failures" % (len(rows), len(failures)))
sys.exit(1 if failures else 0)
