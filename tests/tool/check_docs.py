#!/usr/bin/env python3
"""Runs the examples of the given Markdown files and compares their output
with the output shown.

An example is a fenced block whose first line starts with "$ ": each "$ "
line is a command, run by sh in DATA_DIR (tests/data) with xrprocdetect
found first on PATH, and the lines up to the next command or the block's end are what
it writes (standard output and standard error). A command on a fixture
(--snapshot or --cpuinfo) must write exactly that; a command on this
machine must write the same lines with the same labels (the text before
two blanks, else before the first digit), values free, but for the lines
only some machines have. In ```sh blocks, each line that starts with
"xrprocdetect " is run, up to a comment or a pipe, with --help added, which
fails on an unknown option.

    check_docs.py TOOL DATA_DIR MARKDOWN...
"""
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


def shape(lines, shown=()):
    labels = [re.split(r"  +" if "  " in line.strip() else r"[0-9]", line.strip())[0]
              for line in lines]
    return [label for label in labels if label not in MACHINE_ONLY or label in shown]


failures = []
for doc in docs:
    fence, block = None, []
    for number, line in enumerate(open(doc, encoding="utf-8").read().split("\n"), 1):
        if not line.startswith("```"):
            block.append((number, line))
            continue
        if fence is None:
            fence, block = line[3:], []
            continue
        for at, text in block:
            if fence == "sh" and text.startswith("xrprocdetect "):
                done = run(re.split(r" [#|]", text)[0] + " --help")
                if done.returncode != 0:
                    failures.append("%s:%d: %s\n%s" % (doc, at, text, done.stdout))
        starts = [i for i, (_, text) in enumerate(block) if text.startswith("$ ")]
        fence = None
        if not block or not block[0][1].startswith("$ "):
            continue
        for i, start in enumerate(starts):
            at, command = block[start][0], block[start][1][2:]
            # A blank line may set the next command apart.
            shown = "\n".join(text for _, text in block[start + 1:(starts + [len(block)])[i + 1]])
            shown, got = shown.rstrip("\n").split("\n"), run(command).stdout.rstrip("\n").split("\n")
            if re.search(r"--(snapshot|cpuinfo)\b", command):
                same = got == shown
            else:
                same = shape(got, shape(shown)) == shape(shown)
            if not same:
                diff = difflib.unified_diff(shown, got, "shown", "written", lineterm="")
                failures.append("%s:%d: $ %s\n%s" % (doc, at, command, "\n".join(diff)))
print("\n\n".join(failures))
sys.exit(1 if failures else 0)
