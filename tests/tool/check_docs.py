#!/usr/bin/env python3
# check_docs.py TOOL DATA_DIR MARKDOWN...
#
# Runs the examples of the Markdown files and compares their output with the
# output shown. An example is a fenced block whose first line starts with
# "$ ": each "$ " line is a command, run by sh in DATA_DIR (tests/data) with
# xrprocdetect found first on PATH, and the lines up to the next command or
# the block's end are what it writes (standard output and standard error;
# a blank line may set the next command apart). A command on a fixture
# (--snapshot or --cpuinfo) must write exactly that; a command on this
# machine must write the same lines with the same labels (the text before
# two blanks, else before the first digit), values free, but for the lines
# only some machines have. In ```sh blocks, each line that starts with
# "xrprocdetect " is run, up to a comment or a pipe, with --help added,
# which fails on an unknown option.
import difflib
import os
import re
import subprocess
import sys

tool, data, docs = sys.argv[1], sys.argv[2], sys.argv[3:]
env = dict(os.environ, LC_ALL="C",
           PATH=os.path.dirname(os.path.abspath(tool)) + os.pathsep + os.environ["PATH"])
MACHINE_ONLY = {"Core kinds", "Missing"}  # lines that only some machines have


def run(command):
    try:
        return subprocess.run(command, shell=True, cwd=data, env=env, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, errors="replace",
                              timeout=60, check=False)
    except subprocess.TimeoutExpired:
        return subprocess.CompletedProcess(command, 1, "(still running after 60 s)\n")


def labels(lines, shown=()):
    found = [re.split(r"  +" if "  " in line.strip() else r"[0-9]", line.strip())[0]
             for line in lines]
    return [label for label in found if label not in MACHINE_ONLY or label in shown]


failures = []
for doc in docs:
    text = open(doc, encoding="utf-8").read()
    for block in re.finditer(r"^```(\w*)\n(.*?)^```", text, re.M | re.S):
        where = "%s:%d: " % (doc, text.count("\n", 0, block.start()) + 2)
        for line in re.findall(r"^xrprocdetect .*", block[2], re.M) if block[1] == "sh" else []:
            done = run(re.split(r" [#|]", line)[0] + " --help")
            if done.returncode != 0:
                failures.append(where + line + "\n" + done.stdout)
        for example in re.split(r"^\$ ", block[2], flags=re.M)[1:] if block[2][:2] == "$ " else []:
            command, _, shown = example.partition("\n")
            shown, got = shown.rstrip("\n").split("\n"), run(command).stdout.rstrip("\n").split("\n")
            if re.search(r"--(snapshot|cpuinfo)\b", command):
                same = got == shown
            else:
                same = labels(got, labels(shown)) == labels(shown)
            if not same:
                diff = difflib.unified_diff(shown, got, "shown", "written", lineterm="")
                failures.append(where + "$ " + command + "\n" + "\n".join(diff))
print("\n\n".join(failures))
sys.exit(1 if failures else 0)
