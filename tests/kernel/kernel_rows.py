#!/usr/bin/env python3
"""Runs xrprocdetect --all -J over every fixture of rows.txt at once (JSON
Lines, one object an input and generation, in the order given) and checks
each kernel object and agreesWithKernel against the row worked out by hand.

    kernel_rows.py TOOL SYSROOTS_DIR ROWS_FILE
"""
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
        if row["kernel"] != kernel:
            failures.append("%s: kernel %s, expected %s" % (where, row["kernel"], kernel))
        agrees = dict(zip(FIELDS, [MARKS[m] for m in marks[g]]))
        if row["agreesWithKernel"] != agrees:
            failures.append("%s: agreesWithKernel %s, expected %s"
                            % (where, row["agreesWithKernel"], agrees))
for failure in failures:
    print(failure)
print("%d fixtures, %d failures" % (len(expected), len(failures)))
sys.exit(1 if failures else 0)
