#!/usr/bin/env python3
"""check_json.py TOOL DATA_DIR

Every JSON that xrprocdetect prints, live and on every fixture, must parse
and have the stable keys in order (and "summary" with --summary); a
generation that was counted has numbers as its counts, one that was not has
nulls and a note that says why."""
import glob
import json
import subprocess
import sys

KEYS = ["schemaVersion", "generation", "class", "procInfoIndex", "source", "file", "counted",
        "result", "logicalCount", "physicalCount", "coreCount", "hyperThreadState", "vmState",
        "reportedVerdict", "endedBy", "note"]
tool, data = sys.argv[1:3]
wrong = 0
for args in [["-J"], ["-J", "-a", "5.3", "--summary"]] + [
        ["-J", "--all", "--summary", "--cpuinfo", name] for name in glob.glob(data + "/*.cpuinfo")]:
    rows = json.loads(subprocess.run([tool] + args, capture_output=True, check=True).stdout)
    for row in rows if isinstance(rows, list) else [rows]:
        numbers = all(type(row[key]) is int for key in KEYS[7:13])
        nulls = all(row[key] is None for key in KEYS[7:13]) and row["note"]
        if list(row) != KEYS + ["summary"] * ("--summary" in args) or not (
                numbers if row["counted"] else nulls):
            print("xrprocdetect", *args, "gave", row)
            wrong += 1
sys.exit(1 if wrong else 0)
