# SPDX-License-Identifier: Apache-2.0
"""Which lines of src/ the unit tests, the system tests and the crash points reach.

    python3 tests/coverage.py [--llvm VERSION] [--report]

Runs all of them on the coverage build and prints a table by folder. build/coverage/missed.txt has
every line that was not reached, those that hand on or log a failure first; html/ beside it shows
the sources. --report only prints again what the last run counted.
"""

import argparse
import collections
import os
import pathlib
import re
import shutil
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / "coverage"
RAW = BUILD / "raw"
MERGED = RAW / "all.profdata"
MISSED = BUILD / "missed.txt"
PYTHON = "/usr/bin/python3"
SYSTEM, TORTURE = ROOT / "build" / "test", ROOT / "build" / "torture"  # where these leave theirs
FAILURE = re.compile(r"return (?!0;|true|nullptr;|;)|goto |log_err|log_msg")


def llvm(tool, version):
    return f"llvm-{tool}-{version}" if version else f"llvm-{tool}"


def run_all(version):
    """Whether one of the three kinds of runs failed; it has counted its lines all the same."""
    shutil.rmtree(RAW, ignore_errors=True)
    shutil.rmtree(TORTURE, ignore_errors=True)
    RAW.mkdir()
    environment = os.environ | {"LLVM_PROFILE_FILE": str(RAW / "unit-%m%c.profraw")}
    runs = ([BUILD / "unit_tests", "--gtest_brief=1"],
            [PYTHON, ROOT / "tests" / "run.py", "--build", "coverage"],
            [PYTHON, "-m", "lab.torture.run", "--build", BUILD, "crash"])
    failed = [subprocess.run(one, cwd=ROOT, env=environment, check=False).returncode for one in runs]
    counters = [path for folder in (RAW, SYSTEM, TORTURE) for path in folder.rglob("*.profraw")]
    subprocess.run([llvm("profdata", version), "merge", "-sparse", "-o", MERGED, *counters], check=True)
    return any(failed)


def llvm_cov(version, verb, *options):
    command = [llvm("cov", version), verb, str(BUILD / "pluginmgr"), f"--instr-profile={MERGED}",
               f"--compilation-dir={ROOT}", "--ignore-filename-regex=/generated/", *options]
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout


def lines_of(text):
    """{file: {line: count}} and {file: {lines with a branch that was never taken}} of an export in
    the format of lcov."""
    lines, branches, name = {}, {}, None
    for record in text.splitlines():
        kind, _, value = record.partition(":")
        if kind == "SF":
            name = os.path.relpath(value, ROOT / "src")
            lines[name], branches[name] = {}, set()
        elif kind == "DA":
            line, count = map(int, value.split(",")[:2])
            lines[name][line] = count
        elif kind == "BRDA" and value.split(",")[3] in ("-", "0"):
            branches[name].add(int(value.split(",")[0]))
    return lines, branches


def write_missed(lines, branches):
    """missed.txt: failures not reached, then returns that choose and never chose one side, then
    the other lines."""
    failures, choices, others = [], [], []
    for name, counts in sorted(lines.items()):
        text = (ROOT / "src" / name).read_text().splitlines()
        for line, count in sorted(counts.items()):
            entry = f"src/{name}:{line}: {text[line - 1].strip()}"
            if count == 0:
                (failures if FAILURE.search(entry) else others).append(entry)
            elif line in branches[name] and "return " in entry:
                choices.append(entry)
    MISSED.write_text("\n".join(["# failures not reached", *failures, "", "# one side only", *choices,
                                 "", "# other lines not reached", *others, ""]))


def report(version):
    lines, branches = lines_of(llvm_cov(version, "export", "--format=lcov"))
    llvm_cov(version, "show", "--format=html", f"--output-dir={BUILD / 'html'}")
    write_missed(lines, branches)
    folders = collections.defaultdict(lambda: [0, 0])
    for name, counts in lines.items():
        for folder in (name.split("/")[0], "src"):
            folders[folder][0] += len(counts)
            folders[folder][1] += sum(count > 0 for count in counts.values())
    print("| folder  | lines | reached |      % |\n|---------|------:|--------:|-------:|")
    for folder in sorted(folders, key=lambda name: (name == "src", name)):
        total, reached = folders[folder]
        print(f"| {folder:7} | {total:5} | {reached:7} | {100 * reached / total:6.1f} |")
    print(f"not reached: {MISSED.relative_to(ROOT)}, {(BUILD / 'html').relative_to(ROOT)}/")


def main(arguments):
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--report", action="store_true", help="print the last run again")
    parser.add_argument("--llvm", metavar="VERSION", help="of the build's compiler, e.g. 14")
    chosen = parser.parse_args(arguments)
    failed = 0 if chosen.report else run_all(chosen.llvm)
    report(chosen.llvm)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
