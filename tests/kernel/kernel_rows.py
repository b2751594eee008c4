#!/usr/bin/env python3
"""Runs xrprocdetect --all -J over every fixture of rows.txt at once (JSON
Lines, one object an input and generation, in the order given) and checks
each kernel object and agreesWithKernel against the row worked out by hand,
and the usable processors against usable.txt beside rows.txt. Then, over
the real machines' layouts of layouts.txt beside it: packages, cores,
logical processors, the online and usable sets, the quota, the kinds of
core, the hypervisor's vendor and virtualization type and the container;
and, where lscpu is installed, that the vendor is lscpu's wherever lscpu
names one.

    kernel_rows.py TOOL SYSROOTS_DIR ROWS_FILE
"""
import os
import json
import shutil
import subprocess
import sys

tool, sysroots, rows_file = sys.argv[1:4]
FIELDS = ["packages", "cores", "logicalProcessors", "smt", "virtualMachine"]
GENERATIONS = ["5.3", "6.0", "6.1", "7.0", "default"]
MARKS = {"y": True, "n": False, "-": None}


# The words of each line of the table NAME beside rows.txt (rows.txt too),
# but its blank lines and comments.
def table(name):
    path = os.path.join(os.path.dirname(rows_file), name)
    return [line.split() for line in open(path, encoding="utf-8") if line.strip() and line[0] != "#"]


expected = []
for words in table(os.path.basename(rows_file)):
    kernel = [None if w == "-" else int(w) if w.isdigit() else w for w in words[1:6]]
    expected.append((words[0], dict(zip(FIELDS, kernel)), words[6:]))

# fixture offline usable quota effective kinds ("performance:6/12,efficiency:8/8")
USABLE = {}
for w in table("usable.txt"):
    kinds = None if w[5] == "-" else [
        {"kind": k.split(":")[0], "cores": int(k.split(":")[1].split("/")[0]),
         "logicalProcessors": int(k.split("/")[1])} for k in w[5].split(",")]
    numbers = [None if v == "-" else float(v) for v in w[1:5]]  # 2.0 == 2, as JSON's 2
    USABLE[w[0]] = dict(zip(["offlineProcessors", "usableProcessors", "cpuQuota",
                             "effectiveProcessors"], numbers), coreKinds=kinds)

failures = []


def run(command, names):
    done = subprocess.run(command + ["--snapshot"] + names, cwd=sysroots, capture_output=True,
                          text=True, check=False)
    if done.returncode != 0 or done.stderr:
        failures.append("exit status %d: %s" % (done.returncode, done.stderr))
    return [json.loads(line) for line in done.stdout.splitlines()]


lines = run([tool, "--all", "-J"], [e[0] for e in expected])
if len(lines) != 5 * len(expected):
    failures.append("%d JSON lines for %d inputs" % (len(lines), len(expected)))
for i, (name, kernel, marks) in enumerate(expected):
    for g, generation in enumerate(GENERATIONS):
        row = lines[5 * i + g] if 5 * i + g < len(lines) else {}
        where = "%s %s" % (name, generation)
        if (row.get("input"), row.get("generation")) != (name, generation):
            failures.append("%s: line is %s %s" % (where, row.get("input"), row.get("generation")))
            continue
        kernel = dict(kernel, **USABLE[name])
        got = {key: row["kernel"].get(key) for key in kernel}
        if got != kernel:
            failures.append("%s: kernel %s, expected %s" % (where, got, kernel))
        agrees = dict(zip(FIELDS, [MARKS[m] for m in marks[g]]))
        if row["agreesWithKernel"] != agrees:
            failures.append("%s: agreesWithKernel %s, expected %s"
                            % (where, row["agreesWithKernel"], agrees))
LAYOUT = ["packages", "cores", "logicalProcessors", "onlineCpus", "usableCpus", "cpuQuota",
          "kinds", "hypervisorVendor", "virtualizationType", "container", "effectiveProcessors"]
layouts = table("layouts.txt")
lines = run([tool, "-a", "5.3", "--json-lines"], [r[0] for r in layouts])
for words, row in zip(layouts, lines + [None] * (len(layouts) - len(lines))):
    kernel = dict(row["kernel"], kinds=len(row["kernel"]["coreKinds"] or [0])) if row else {}
    want = {f: None if w == "-" else int(w) if f in LAYOUT[:3] + ["kinds", "effectiveProcessors"] else
            float(w) if f == "cpuQuota" else w for f, w in zip(LAYOUT, words[1:])}
    if {f: kernel.get(f) for f in LAYOUT} != want:
        failures.append("%s: %s, expected %s" % (words[0], kernel, want))
    lscpu = shutil.which("lscpu") and subprocess.run(
        ["lscpu", "--sysroot", os.path.join(sysroots, words[0])], capture_output=True, text=True,
        check=False, env=dict(os.environ, LC_ALL="C")).stdout or ""
    vendor = [v.split(":", 1)[1].strip() for v in lscpu.splitlines() if v.startswith("Hypervisor vendor:")]
    if vendor and vendor[0] != kernel.get("hypervisorVendor"):
        failures.append("%s: lscpu names %s" % (words[0], vendor[0]))
for failure in failures:
    print(failure)
print("%d fixtures, %d layouts, %d failures" % (len(expected), len(layouts), len(failures)))
sys.exit(1 if failures else 0)
