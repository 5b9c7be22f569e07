#!/usr/bin/env python3
"""Runs the shell blocks of the documentation that are marked as checked, so
that what the documents show cannot drift from what the code does.

A fenced block preceded by one of these comments is checked:

  <!-- docs-check: run -->      the block runs in bash (-e, -u, pipefail) and
                                must end with status 0
  <!-- docs-check: session -->  a console session: each line starting with
                                "$ " is a command (a trailing backslash
                                continues it), the lines after it are its
                                output (standard output and error); every
                                command runs in one bash in order, and what it
                                prints must equal what the block shows

Before the comparison, texts that differ from run to run are masked on both
sides: times and dates, epoch seconds and source lines in JSON, tracking ids
(0x...) and build ids.

The blocks of one document run in order in one scratch folder, each in a
network namespace of its own when the machine allows it (so the fixed ports
the documents use cannot meet anything else). The folder holds:
  build-demo -> the build folder (the documents' quick start builds there)
and the build installed into .install/usr, whose bin folder comes first on
PATH and whose pkg-config folder is on PKG_CONFIG_PATH. TZ is UTC.

  check_docs.py --source DIR --build DIR [--sanitize LIST] DOC.md...
"""

import argparse
import difflib
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile

MARKER = re.compile(r"^<!-- docs-check: (run|session) -->\s*$")
FENCE = re.compile(r"^```")
MARKER_LINE = "@@qm-docs-check@@"
MASKS = [
    (re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d"), "<time>"),
    (re.compile(r"\d\d/\d\d/\d{4} \d\d:\d\d:\d\d"), "<time>"),
    (re.compile(r'"time":\d+'), '"time":<n>'),
    (re.compile(r'"line":\d+'), '"line":<n>'),
    (re.compile(r"\b[0-9a-f]{40}\b"), "<build id>"),
    (re.compile(r"\b0x[0-9a-f]+\b"), "0x<id>"),
]
TIMEOUT = 120


def blocks(path):
    """(kind, first line number, lines) of each checked block."""
    lines = open(path, encoding="utf-8").read().split("\n")
    found = []
    i = 0
    while i < len(lines):
        match = MARKER.match(lines[i])
        i += 1
        if not match:
            continue
        while i < len(lines) and not lines[i].strip():
            i += 1
        if i >= len(lines) or not FENCE.match(lines[i]):
            raise SystemExit("%s:%d: a docs-check marker must precede a fenced block" % (path, i))
        start = i + 1
        end = start
        while end < len(lines) and not FENCE.match(lines[end]):
            end += 1
        found.append((match.group(1), start + 1, lines[start:end]))
        i = end + 1
    return found


def parse_session(lines):
    """[(command, expected output lines)]"""
    steps = []
    continuing = False
    for line in lines:
        if continuing:
            steps[-1][0] += "\n" + line
        elif line.startswith("$ "):
            steps.append([line[2:], []])
        elif steps:
            steps[-1][1].append(line)
        else:
            raise SystemExit("a session must start with a command: " + line)
        continuing = (continuing or line.startswith("$ ")) and line.endswith("\\")
    return steps


def mask(text):
    for pattern, replacement in MASKS:
        text = pattern.sub(replacement, text)
    return text.rstrip("\n")


def isolated():
    """The command prefix that gives a block a network of its own, or []."""
    probe = ["unshare", "-rn", "sh", "-c", "ip link set lo up"]
    try:
        if subprocess.run(probe, capture_output=True, timeout=10).returncode == 0:
            return ["unshare", "-rn", "sh", "-c", 'ip link set lo up && exec bash "$0"']
    except (OSError, subprocess.SubprocessError):
        pass
    return ["bash"]


def run_script(script, folder, env, prefix):
    path = os.path.join(folder, ".docs-check-block.sh")
    with open(path, "w", encoding="utf-8") as out:
        out.write(script)
    process = subprocess.Popen(prefix + [path], cwd=folder, env=env, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                               start_new_session=True)
    try:
        output, _ = process.communicate(timeout=TIMEOUT)
        status = process.returncode
    except subprocess.TimeoutExpired:
        output, status = b"(timed out)", -1
    finally:
        # Whatever a block left running ends with it.
        try:
            os.killpg(process.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        process.wait()
    return status, output.decode("utf-8", "replace")


def check_block(kind, lines, folder, env, prefix):
    """A list of failure texts; empty when the block holds."""
    if kind == "run":
        status, output = run_script("set -euo pipefail\n" + "\n".join(lines) + "\n", folder, env,
                                    prefix)
        return [] if status == 0 else ["ended with status %d:\n%s" % (status, output)]
    steps = parse_session(lines)
    script = "exec 2>&1\n"
    for command, _ in steps:
        script += "%s\n__qm_status=$?; echo; echo %s; (exit $__qm_status)\n" % (command,
                                                                                 MARKER_LINE)
    _, output = run_script(script, folder, env, prefix)
    outputs = output.split("\n" + MARKER_LINE + "\n")
    failures = []
    for index, (command, expected) in enumerate(steps):
        actual = outputs[index] if index < len(outputs) else "(no output: the session ended)"
        want, got = mask("\n".join(expected)), mask(actual)
        if want != got:
            diff = difflib.unified_diff(want.split("\n"), got.split("\n"), "shown", "printed",
                                        lineterm="")
            failures.append("$ %s\n%s" % (command, "\n".join(diff)))
    return failures


def prepare(folder, source, build):
    os.symlink(os.path.abspath(build), os.path.join(folder, "build-demo"))
    prefix = os.path.join(folder, ".install", "usr")
    subprocess.run(["cmake", "--install", build, "--prefix", prefix], check=True,
                   stdout=subprocess.DEVNULL)
    env = dict(os.environ)
    env["PATH"] = os.path.join(prefix, "bin") + os.pathsep + env.get("PATH", "")
    for root, _, files in os.walk(prefix):
        if "qmoap.pc" in files:
            env["PKG_CONFIG_PATH"] = root
    env["TZ"] = "UTC"
    env["QM_SOURCE_DIR"] = os.path.abspath(source)
    return env


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", required=True)
    parser.add_argument("--build", required=True)
    parser.add_argument("--sanitize", default="")
    parser.add_argument("docs", nargs="+")
    args = parser.parse_args()
    if args.sanitize:
        print("SKIP: the documents are checked in the plain build")
        return 77
    prefix = isolated()
    failures = 0
    checked = 0
    for doc in args.docs:
        folder = tempfile.mkdtemp(prefix="qm_docs.")
        try:
            env = prepare(folder, args.source, args.build)
            for kind, line, lines in blocks(doc):
                checked += 1
                for failure in check_block(kind, lines, folder, env, prefix):
                    failures += 1
                    print("FAIL: %s:%d (%s block)\n%s\n" % (doc, line, kind, failure))
        finally:
            shutil.rmtree(folder, ignore_errors=True)
    print("%d checked block(s), %d failure(s)%s" %
          (checked, failures, "" if len(prefix) > 1 else " (no network namespace)"))
    return 1 if failures or not checked else 0


if __name__ == "__main__":
    sys.exit(main())
