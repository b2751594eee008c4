#!/usr/bin/env python3
"""check_schema.py TOOL DATA_DIR SCHEMA

Every line that xrprocdetect -J writes, in every mode, on every snapshot and
system root of the tests, on the saved /proc/cpuinfo texts and live, is one
JSON object that the schema (draft 2020-12) accepts; and the schema refuses
a row of each kind with a key left out, a key added or a wrong version, and
a count that is a string. Exits 77 (skipped) where Python has no jsonschema
module (Debian: python3-jsonschema)."""
import glob
import json
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
MODES = [["-J"], ["--all", "-J", "--summary"], ["--cpus", "-J"], ["--caches", "-J"],
         ["--draw", "-J"], ["--tally", "-J"]] + [
             ["--places=" + k, "-J"] for k in ["threads", "cores", "ll_caches", "numa_domains",
                                               "sockets"]]
wrong = []
kinds = {}


def check(args, expected, lines=None):
    """Each line of `args` (at least `expected`) is an object the schema takes."""
    if lines is None:
        lines = subprocess.run([tool] + args, capture_output=True, check=False).stdout.splitlines()
    if len(lines) < expected:
        wrong.append("%s: %d rows, expected %d" % (args[:3], len(lines), expected))
    for line in lines:
        row = json.loads(line)  # a line that is not one object fails here
        kinds[args[0]] = row
        wrong.extend("%s: %s at %s" % (args[:3], e.message, list(e.path))
                     for e in list(validator.iter_errors(row))[:1])


for mode in MODES:
    check(mode, 1)  # live
    # Every tree at once: a row each (five with --all; a tally's five fields
    # of one generation), but for the trees that cannot be read.
    check(mode + ["--snapshot"] + trees, 5 if "--tally" in mode else len(trees) // 2)
for mode in [["-J"], ["--all", "-J"], ["--json-lines", "-a", "5.3"]]:
    check(mode + ["--cpuinfo"] + texts, len(texts))
watch = subprocess.Popen([tool, "--watch=0.01", "-J"], stdout=subprocess.PIPE)
check(["--watch"], 1, [watch.stdout.readline()])
watch.kill()
watch.wait()
for mode, row in kinds.items():
    first = next(iter(row))
    for bad in [{k: v for k, v in row.items() if k != first}, dict(row, surplus=1),
                dict(row, schemaVersion=1)]:
        if validator.is_valid(bad):
            wrong.append("the schema accepts a wrong row of %s: %s" % (mode, list(bad)[:4]))
if validator.is_valid(dict(kinds["--all"], packages="2")):
    wrong.append("the schema accepts a count that is a string")
print("\n".join(wrong))
sys.exit(1 if wrong else 0)
