#!/usr/bin/env python3
"""check_json.py TOOL DATA_DIR SCHEMA

Every line of xrprocdetect -J, in every mode, on every tree and text of the
tests and live, is one object that the schema (draft 2020-12) accepts, and
the schema refuses wrong rows. A detection's row has the stable keys in
order; a counted generation has numbers as its counts, one not counted
nulls and a note. Bytes that are not UTF-8, or are control characters, come
out as valid UTF-8 that moves no terminal's cursor. Without Python's
jsonschema (Debian: python3-jsonschema) the rest is checked, then 77."""
import glob
import json
import os
import shutil
import subprocess
import sys
import tempfile

try:
    import jsonschema
except ImportError:
    jsonschema = None

LISTS = {"row": [], "counts": [], "kernel": [], "utf8": []}  # json_keys.txt, a line a list's words
with open(os.path.join(os.path.dirname(__file__), "json_keys.txt"), encoding="utf-8") as f:
    for words in (line.split() for line in f if line[0] != "#"):
        LISTS[words[0]] += words[1:]
KEYS, COUNTS, KERNEL = LISTS["row"], LISTS["counts"], LISTS["kernel"]
# A state's code and its word: hyperThreadState 0 is no SMT, 1 off, 2 and 3
# on; vmState 0 none, 1 VMware (15 is a word only after the CPUID estimate).
SMT = {0: "notsupported", 1: "off", 2: "on", 3: "on", 15: None}
VM = {0: "none", 1: "vmware"}
tool, data, schema_file = sys.argv[1:4]
validator = None
if jsonschema:
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


def detection_wrong(args, row):
    """What is wrong with a detection's row of a live run or a saved text."""
    numbers = all(type(row[key]) is int for key in COUNTS)
    nulls = all(row[key] is None for key in COUNTS) and row["note"]
    words = not row["counted"] or (
        row["smt"] == SMT.get(row["smtCode"], "?") and
        row["virtualMachine"] == VM.get(row["virtualMachineCode"],
                                        "other" if row["endedBy"] == "cpuid" else None))
    kernel = (list(row["kernel"]) == KERNEL and list(row["agreesWithKernel"]) == KERNEL[:5]
              and row["kernel"]["smt"] in ("on", "off", "notsupported", None)) if \
        row["input"] == "live" else (row["kernel"] is None and row["agreesWithKernel"] is None
                                     and row["hostname"] is None and row["source"] == "file")
    summary = ("--summary" in args) == (row["summary"] is not None) or not row["counted"]
    return (list(row) != KEYS or row["schemaVersion"] != 2
            or not (numbers if row["counted"] else nulls) or not words or not kernel
            or not summary)


def check(args, expected, lines=None):
    """Each line of `args` (at least `expected`) is an object the schema takes."""
    if lines is None:
        lines = subprocess.run([tool] + args, capture_output=True, check=False).stdout.splitlines()
    if len(lines) < expected:
        wrong.append("%s: %d rows, expected %d" % (args[:3], len(lines), expected))
    for line in lines:
        row = json.loads(line)  # a line that is not one object fails here
        kinds[args[0]] = row
        if validator:
            wrong.extend("%s: %s at %s" % (args[:3], e.message, list(e.path))
                         for e in list(validator.iter_errors(row))[:1])
        if args[0] in ("-J", "--all", "--json-lines") and "--snapshot" not in args and \
                detection_wrong(args, row):
            wrong.append("xrprocdetect %s gave %s" % (" ".join(args), row))


for mode in MODES:
    check(mode, 1)  # live
    # Every tree at once: a row each (five with --all; a tally's five fields
    # of one generation), but for the trees that cannot be read.
    check(mode + ["--snapshot"] + trees, 5 if "--tally" in mode else len(trees) // 2)
for mode in [["-J"], ["--all", "-J", "--summary"], ["--json-lines", "-a", "5.3"]]:
    check(mode + ["--cpuinfo"] + texts, len(texts))
watch = subprocess.Popen([tool, "--watch=0.01", "-J"], stdout=subprocess.PIPE)
check(["--watch"], 1, [watch.stdout.readline()])
watch.kill()
watch.wait()
for mode, row in kinds.items() if validator else []:
    first = next(iter(row))
    for bad in [{k: v for k, v in row.items() if k != first}, dict(row, surplus=1),
                dict(row, schemaVersion=1)]:
        if validator.is_valid(bad):
            wrong.append("the schema accepts a wrong row of %s: %s" % (mode, list(bad)[:4]))
if validator and validator.is_valid(dict(kinds["--all"], packages="2")):
    wrong.append("the schema accepts a count that is a string")

with tempfile.TemporaryDirectory() as scratch:
    # Process 1's container= holds bytes ff fe (no UTF-8), ESC [2J (clears a
    # terminal), 80 (a lone continuation byte), x and the characters of
    # json_keys.txt at the edges of UTF-8's ranges (the text shows U+00A0 as
    # it is, and escapes DEL as it does ESC); the tree's name an ESC
    # sequence, U+009B (a control character) and e9 (which starts a
    # character that never comes).
    tree = os.fsencode(scratch) + b"/tree\x1b[31m\xc2\x9b\xe9"
    shutil.copytree(os.fsencode(data) + b"/sysroots/two-package-smt-8", tree)
    os.makedirs(tree + b"/proc/1")
    edges = [(bytes.fromhex(w.strip("-")), w[0] != "-") for w in LISTS["utf8"]]
    edge = "".join(b.decode("utf-8" if ok else "latin-1") for b, ok in edges)
    with open(tree + b"/proc/1/environ", "wb") as environ:
        environ.write(b"HOME=/\0container=\xff\xfe\x1b[2J\x80x" + b"".join(b for b, _ in edges) + b"\0")
    out = subprocess.run([tool, "-J", "--snapshot", tree], capture_output=True).stdout
    row = json.loads(out.decode("utf-8"))  # strict: valid UTF-8 only
    text = subprocess.run([tool, "--snapshot", tree], capture_output=True).stdout
    error = subprocess.run([tool, "--snapshot", tree + b"-gone"], capture_output=True).stderr
    (text + error).decode("utf-8")  # as strictly
    if (row["kernel"]["container"] != "\xff\xfe\x1b[2J\x80x" + edge or {0x1b, 0x7f} & set(text + error)
            or row["input"] != scratch + "/tree\x1b[31m\x9b\xe9" or b"\xc2\x9b" in text + error
            or b"tree\\x1b[31m\\xc2\\x9b\\xe9 (a snapshot)" not in text or b"\xc2\xa0" not in text
            or b"tree\\x1b[31m\\xc2\\x9b\\xe9-gone:" not in error):
        wrong.append("not UTF-8, or moves the cursor: %r %r %r %r"
                     % (row["kernel"]["container"], row["input"], text, error))
print("\n".join(wrong))
sys.exit(1 if wrong else 0 if validator else 77)
