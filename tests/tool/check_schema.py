#!/usr/bin/env python3
"""check_schema.py TOOL DATA_DIR SCHEMA

Every line that xrprocdetect -J writes, in every mode, on every snapshot and
system root of the tests, on the saved /proc/cpuinfo texts and live, is one
JSON object that the schema (draft 2020-12) accepts. The schema is no
rubber stamp: rows with a key left out, a key added or a count of the wrong
type are refused. Exits 77 (skipped) where Python has no jsonschema
module (Debian: python3-jsonschema)."""
import copy
import glob
import json
import os
import subprocess
import sys

try:
    import jsonschema
except ImportError:
    print("skipped: no Python module jsonschema (apt-get install python3-jsonschema)")
    sys.exit(77)

tool, data, schema_file = sys.argv[1:4]
with open(schema_file, encoding="utf-8") as f:
    schema = json.load(f)
jsonschema.Draft202012Validator.check_schema(schema)
validator = jsonschema.Draft202012Validator(schema)
trees = sorted(glob.glob(data + "/snapshots/*") + glob.glob(data + "/sysroots/*"))
texts = sorted(glob.glob(data + "/*.cpuinfo"))
PLACES = ["threads", "cores", "ll_caches", "numa_domains", "sockets"]
MODES = [["-J"], ["--all", "-J", "--summary"], ["--cpus", "-J"], ["--caches", "-J"],
         ["--draw", "-J"], ["--tally", "-J"]] + [["--places=" + k, "-J"] for k in PLACES]
wrong = 0
kinds = {}


def rows(args):
    """The lines of one run, each parsed; a line that is not one object is wrong."""
    global wrong
    out = subprocess.run([tool] + args, capture_output=True, check=False).stdout.decode()
    parsed = []
    for line in out.splitlines():
        try:
            parsed.append(json.loads(line))
        except ValueError:
            print("xrprocdetect", *args[:3], "wrote a line that is not JSON:", line[:200])
            wrong += 1
    return parsed


def check(args, expected):
    """Validates each row of `args`; `expected` rows at least must come."""
    global wrong
    got = rows(args)
    if len(got) < expected:
        print("xrprocdetect", *args[:3], "wrote %d rows, expected %d" % (len(got), expected))
        wrong += 1
    for row in got:
        kinds[args[0]] = row
        for error in validator.iter_errors(row):
            print("xrprocdetect", *args[:3], "...:", error.message, "at", list(error.path))
            wrong += 1
            break


for mode in MODES:
    check(mode, 1)  # live
    # Every tree at once: a row each (a generation's with --all: five; a
    # tally's: five fields of each generation), but for trees that cannot be
    # read, which are reported on standard error.
    check(mode + ["--snapshot"] + trees, 5 if "--tally" in mode else len(trees) // 2)
for mode in [["-J"], ["--all", "-J"], ["-J", "--json-lines", "-a", "5.3"]]:
    check(mode + ["--cpuinfo"] + texts, len(texts))
watch = subprocess.Popen([tool, "--watch=0.01", "-J"], stdout=subprocess.PIPE)
line = watch.stdout.readline()
watch.kill()
watch.wait()
for error in validator.iter_errors(json.loads(line)):
    print("--watch -J:", error.message)
    wrong += 1

# Rows the schema must refuse: one made wrong in each way, from a row of
# each kind the tool wrote.
for mode, row in kinds.items():
    first = next(iter(row))
    for bad in [{k: v for k, v in row.items() if k != first}, dict(row, surplus=1),
                dict(row, schemaVersion=1)]:
        if validator.is_valid(bad):
            print("the schema accepts a wrong row of", mode, ":", list(bad)[:4])
            wrong += 1
detection = copy.deepcopy(kinds["--all"])
detection["packages"] = "2"
if validator.is_valid(detection):
    print("the schema accepts a count that is a string")
    wrong += 1
sys.exit(1 if wrong else 0)
