#!/usr/bin/env python3
"""Runs xrprocdetect --all -J over every fixture of rows.txt at once (JSON
Lines, one object an input and generation, in the order given) and checks
each kernel object and agreesWithKernel against the row worked out by hand,
and the usable processors against usable.txt beside rows.txt.

    kernel_rows.py TOOL SYSROOTS_DIR ROWS_FILE
"""
import os
import json
import subprocess
import sys

tool, sysroots, rows_file = sys.argv[1:4]
FIELDS = ["packages", "cores", "logicalProcessors", "smt", "virtualMachine"]
GENERATIONS = ["5.3", "6.0", "6.1", "7.0", "default"]
MARKS = {"y": True, "n": False, "-": None}

expected = []
for text in open(rows_file, encoding="utf-8"):
    if text.strip() and not text.startswith("#"):
        words = text.split()
        kernel = [None if w == "-" else int(w) if w.isdigit() else w for w in words[1:6]]
        expected.append((words[0], dict(zip(FIELDS, kernel)), words[6:]))

# fixture offline usable quota effective kinds ("performance:6/12,efficiency:8/8")
USABLE = {}
for text in open(os.path.join(os.path.dirname(rows_file), "usable.txt"), encoding="utf-8"):
    if text.strip() and not text.startswith("#"):
        w = text.split()
        kinds = None if w[5] == "-" else [
            {"kind": k.split(":")[0], "cores": int(k.split(":")[1].split("/")[0]),
             "logicalProcessors": int(k.split("/")[1])} for k in w[5].split(",")]
        USABLE[w[0]] = {"offlineProcessors": None if w[1] == "-" else int(w[1]),
                        "usableProcessors": None if w[2] == "-" else int(w[2]),
                        "cpuQuota": None if w[3] == "-" else float(w[3]),
                        "effectiveProcessors": None if w[4] == "-" else int(w[4]),
                        "coreKinds": kinds}
missing = [e[0] for e in expected if e[0] not in USABLE]
if missing:
    sys.exit("usable.txt lacks " + " ".join(missing))

done = subprocess.run([tool, "--all", "-J", "--snapshot"] + [e[0] for e in expected],
                      cwd=sysroots, capture_output=True, text=True, check=False)
failures = []
if done.returncode != 0 or done.stderr:
    failures.append("exit status %d: %s" % (done.returncode, done.stderr))
lines = [json.loads(line) for line in done.stdout.splitlines()]
if len(lines) != 5 * len(expected):
    failures.append("%d JSON lines for %d inputs" % (len(lines), len(expected)))
for i, (name, kernel, marks) in enumerate(expected):
    for g, generation in enumerate(GENERATIONS):
        row = lines[5 * i + g] if 5 * i + g < len(lines) else {}
        where = "%s %s" % (name, generation)
        if (row.get("file"), row.get("generation")) != (name, generation):
            failures.append("%s: line is %s %s" % (where, row.get("file"), row.get("generation")))
            continue
        kernel = dict(kernel, **USABLE[name])
        got = {key: row["kernel"].get(key) for key in kernel}
        if got != kernel:
            failures.append("%s: kernel %s, expected %s" % (where, got, kernel))
        agrees = dict(zip(FIELDS, [MARKS[m] for m in marks[g]]))
        if row["agreesWithKernel"] != agrees:
            failures.append("%s: agreesWithKernel %s, expected %s"
                            % (where, row["agreesWithKernel"], agrees))
for failure in failures:
    print(failure)
print("%d fixtures, %d failures" % (len(expected), len(failures)))
sys.exit(1 if failures else 0)
