#!/usr/bin/env python3
"""Checks that every JSON that xrprocdetect prints parses, has the stable keys
and types, and agrees with itself: live on this machine and offline on every
fixture, one generation and --all, with and without --summary.

    check_json.py TOOL DATA_DIR
"""
import glob
import json
import os
import subprocess
import sys

KEYS = ["schemaVersion", "generation", "class", "procInfoIndex", "source", "file",
        "counted", "result", "logicalCount", "physicalCount", "coreCount",
        "hyperThreadState", "vmState", "reportedVerdict", "endedBy", "note"]
COUNTS = ["result", "logicalCount", "physicalCount", "coreCount", "hyperThreadState", "vmState"]
GENERATIONS = ["5.3", "6.0", "6.1", "7.0", "default"]

tool, data = sys.argv[1], sys.argv[2]
failures = []


def fail(args, why):
    failures.append("xrprocdetect %s: %s" % (" ".join(args), why))


KERNEL_KEYS = ["packages", "cores", "logicalProcessors", "smt", "virtualMachine"]


def check_row(args, row, summary):
    # A live row has the kernel's topology beside it; a saved /proc/cpuinfo not.
    kernel = ["kernel", "agreesWithKernel"] if row.get("source") == "live" else []
    keys = KEYS + kernel + (["summary"] if summary else [])
    if list(row) != keys:
        return fail(args, "keys %s" % list(row))
    if row["schemaVersion"] != 1 or row["generation"] not in GENERATIONS:
        return fail(args, "schema or generation: %r" % row)
    for key in COUNTS:
        value = row[key]
        if row["counted"]:
            # Numbers, never texts: bool is an int in Python, so rule it out.
            if not isinstance(value, int) or isinstance(value, bool):
                fail(args, "%s is %r, not a number" % (key, value))
        elif value is not None:
            fail(args, "%s is %r in a row that was not counted" % (key, value))
    for key in kernel:
        if list(row[key]) != KERNEL_KEYS:
            fail(args, "%s keys %s" % (key, list(row[key])))
    if kernel and row["kernel"]["smt"] not in ("on", "off", "notsupported", None):
        fail(args, "kernel smt %r" % row["kernel"]["smt"])
    if not row["counted"] and not row["note"]:
        fail(args, "a row that was not counted says nothing of why")
    if row["source"] == "live" and (row["file"] is not None or not row["counted"]):
        fail(args, "a live row without counts or with a file")


runs = [["-J"], ["-J", "--all"], ["-J", "--all", "--summary"], ["-J", "-a", "5.3", "--summary"]]
for fixture in sorted(glob.glob(os.path.join(data, "*.cpuinfo"))):
    runs.append(["-J", "--all", "--cpuinfo", fixture])
    runs.append(["-J", "--all", "--summary", "--cpuinfo", fixture])

for args in runs:
    done = subprocess.run([tool] + args, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        fail(args, "exit status %d: %s" % (done.returncode, done.stderr))
        continue
    try:
        parsed = json.loads(done.stdout)
    except ValueError as error:
        fail(args, "does not parse: %s" % error)
        continue
    summary = "--summary" in args
    if "--all" in args:
        if not isinstance(parsed, list) or [r.get("generation") for r in parsed] != GENERATIONS:
            fail(args, "not an array of the five generations")
            continue
        for row in parsed:
            check_row(args, row, summary)
    elif isinstance(parsed, dict):
        check_row(args, parsed, summary)
    else:
        fail(args, "not one object")

for failure in failures:
    print(failure)
print("%d JSON outputs checked, %d failures" % (len(runs), len(failures)))
sys.exit(1 if failures else 0)
