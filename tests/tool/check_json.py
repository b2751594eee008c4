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
# Live rows have the kernel's topology beside them; a saved /proc/cpuinfo has none.
KERNEL = ["packages", "cores", "logicalProcessors", "smt", "virtualMachine", "offlineProcessors",
          "usableProcessors", "cpuQuota", "effectiveProcessors", "coreKinds", "onlineCpus",
          "offlineCpus", "usableCpus", "hypervisorVendor", "virtualizationType", "container",
          "cpus", "numaNodes", "caches"]
tool, data = sys.argv[1:3]
wrong = 0
for args in [["-J"], ["-J", "-a", "5.3", "--summary"]] + [
        ["-J", "--all", "--summary", "--cpuinfo", name] for name in glob.glob(data + "/*.cpuinfo")]:
    rows = json.loads(subprocess.run([tool] + args, capture_output=True, check=True).stdout)
    for row in rows if isinstance(rows, list) else [rows]:
        live = row["source"] == "live"
        keys = KEYS + ["kernel", "agreesWithKernel"] * live + ["summary"] * ("--summary" in args)
        numbers = all(type(row[key]) is int for key in KEYS[7:13])
        nulls = all(row[key] is None for key in KEYS[7:13]) and row["note"]
        kernel = not live or (list(row["kernel"]) == KERNEL and
                              list(row["agreesWithKernel"]) == KERNEL[:5] and
                              row["kernel"]["smt"] in ("on", "off", "notsupported", None))
        if list(row) != keys or not (numbers if row["counted"] else nulls) or not kernel:
            print("xrprocdetect", *args, "gave", row)
            wrong += 1
sys.exit(1 if wrong else 0)
