#!/usr/bin/env python3
"""check_json.py TOOL DATA_DIR

Every JSON that xrprocdetect prints, live and on every fixture, must parse
and have the stable keys in order (and "summary" with --summary); a
generation that was counted has numbers as its counts, one that was not has
nulls and a note that says why. Words from the machine and names of files
that are not UTF-8 or hold control characters come out as valid UTF-8: in
JSON each byte that starts no character as the character of its own value,
and in the text report and on standard error as \\xHH, so that they move no
terminal's cursor."""
import glob
import json
import os
import shutil
import subprocess
import sys
import tempfile

KEYS = ["schemaVersion", "input", "source", "hostname", "cpuModel", "cpuVendor", "kernelRelease",
        "savedAt", "savedBy", "generation", "class", "procInfoIndex", "counted", "result",
        "logicalProcessors", "packages", "cores", "smt", "smtCode", "virtualMachine",
        "virtualMachineCode", "reportedVerdict", "endedBy", "note", "summary", "kernel",
        "agreesWithKernel"]
COUNTS = ["result", "logicalProcessors", "packages", "cores", "smtCode", "virtualMachineCode"]
# Live rows have the kernel's topology beside them; a saved /proc/cpuinfo has none.
KERNEL = ["packages", "cores", "logicalProcessors", "smt", "virtualMachine", "offlineProcessors",
          "usableProcessors", "cpuQuota", "effectiveProcessors", "coreKinds", "onlineCpus",
          "offlineCpus", "usableCpus", "hypervisorVendor", "virtualizationType", "container",
          "cpus", "numaNodes", "caches"]
# A state's code and its word: hyperThreadState 0 is no SMT, 1 off, 2 and 3
# on; vmState 0 none, 1 VMware (15 is a word only after the CPUID estimate).
SMT = {0: "notsupported", 1: "off", 2: "on", 3: "on", 15: None}
VM = {0: "none", 1: "vmware"}
tool, data = sys.argv[1:3]
wrong = 0
for args in [["-J"], ["-J", "-a", "5.3", "--summary"]] + [
        ["-J", "--all", "--summary", "--cpuinfo", name] for name in glob.glob(data + "/*.cpuinfo")]:
    out = subprocess.run([tool] + args, capture_output=True, check=True).stdout.decode()
    rows = [json.loads(line) for line in out.splitlines()]
    for row in rows:
        live = row["input"] == "live"
        numbers = all(type(row[key]) is int for key in COUNTS)
        nulls = all(row[key] is None for key in COUNTS) and row["note"]
        words = not row["counted"] or (
            row["smt"] == SMT.get(row["smtCode"], "?") and
            row["virtualMachine"] == VM.get(row["virtualMachineCode"],
                                            "other" if row["endedBy"] == "cpuid" else None))
        kernel = (list(row["kernel"]) == KERNEL and list(row["agreesWithKernel"]) == KERNEL[:5]
                  and row["kernel"]["smt"] in ("on", "off", "notsupported", None)) if live else (
                      row["kernel"] is None and row["agreesWithKernel"] is None
                      and row["hostname"] is None and row["source"] == "file")
        summary = ("--summary" in args) == (row["summary"] is not None) or not row["counted"]
        if (list(row) != KEYS or row["schemaVersion"] != 2 or len(out.splitlines()) != len(rows)
                or not (numbers if row["counted"] else nulls) or not words or not kernel
                or not summary):
            print("xrprocdetect", *args, "gave", row)
            wrong += 1

with tempfile.TemporaryDirectory() as scratch:
    # Process 1's container= holds bytes ff fe (no UTF-8), ESC [2J (clears a
    # terminal) and 80 (a lone continuation byte); the tree's name an ESC
    # sequence, U+009B (a control character) and e9 (which starts a
    # character that never comes).
    tree = os.fsencode(scratch) + b"/tree\x1b[31m\xc2\x9b\xe9"
    shutil.copytree(os.fsencode(data) + b"/sysroots/two-package-smt-8", tree)
    os.makedirs(tree + b"/proc/1")
    with open(tree + b"/proc/1/environ", "wb") as environ:
        environ.write(b"HOME=/\0container=\xff\xfe\x1b[2J\x80x\0")
    out = subprocess.run([tool, "-J", "--snapshot", tree], capture_output=True).stdout
    row = json.loads(out.decode("utf-8"))  # strict: valid UTF-8 only
    text = subprocess.run([tool, "--snapshot", tree], capture_output=True).stdout
    error = subprocess.run([tool, "--snapshot", tree + b"-gone"], capture_output=True).stderr
    (text + error).decode("utf-8")  # as strictly
    if (row["kernel"]["container"] != "\xff\xfe\x1b[2J\x80x" or b"\x1b" in text + error
            or row["input"] != scratch + "/tree\x1b[31m\x9b\xe9" or b"\xc2\x9b" in text + error
            or b"tree\\x1b[31m\\xc2\\x9b\\xe9 (a snapshot)" not in text
            or b"tree\\x1b[31m\\xc2\\x9b\\xe9-gone:" not in error):
        print("not UTF-8, or moves the cursor:", row["kernel"]["container"], row["input"], text, error)
        wrong += 1
sys.exit(1 if wrong else 0)
