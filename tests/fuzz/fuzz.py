# SPDX-License-Identifier: Apache-2.0
"""Runs the fuzz targets and prints a table; the exit status is the number of findings.

    python3 tests/fuzz/fuzz.py [--seconds N] [--inputs N] [--build FOLDER] [TARGET...]

Each target begins with its seeds (seeds.py) and with every input that was once a finding
(corpus/TARGET/), and ends after so many inputs or seconds, whatever comes first. It runs in the
lab's sandbox, for it writes to the device's files. What it learns stays in fuzz/learnt/TARGET of the
build folder for the next run, a new finding in fuzz/findings/TARGET.
"""

import argparse
import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys
import time

import seeds

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
sys.path.insert(0, str(ROOT))
from lab import sandbox  # pylint: disable=wrong-import-position

LARGEST = 8192  # bytes of an input
SLOWEST = 10  # seconds that one input may take


def prepare(target, work):
    """Writes a target's seeds; the options and folders to run it with, in the sandbox."""
    for kind in ("learnt", "seeds", "findings"):
        (work / kind / target).mkdir(parents=True, exist_ok=True)
    for number, seed in enumerate(seeds.SEEDS[target]):
        (work / "seeds" / target / f"{number:03}").write_bytes(seed)
    found = HERE / "corpus" / target
    return [f"-artifact_prefix=/lab-out/findings/{target}/", f"-max_len={LARGEST}",
            f"-timeout={SLOWEST}", "-print_final_stats=1",
            f"/lab-out/learnt/{target}", f"/lab-out/seeds/{target}",
            *([f"/lab-src/{found.relative_to(ROOT)}"] if found.exists() else [])]


def run(target, chosen):
    """One target; its row of the table and its output."""
    work = chosen.build.resolve() / "fuzz"
    program = [f"/lab-out/{target}", f"-max_total_time={chosen.seconds}", f"-runs={chosen.inputs}"]
    began = time.monotonic()
    done = subprocess.run(sandbox.command(program + prepare(target, work), work), close_fds=False,
                          stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False)
    seconds = time.monotonic() - began
    output = done.stderr.decode(errors="replace")
    inputs, edges, kept = (int((re.findall(rf"{name}: *(\d+)", output) or [0])[-1])
                           for name in ("number_of_executed_units", "cov", "corp"))
    bad = done.returncode != 0
    return (f"{target:14} {inputs:9} {seconds:7.0f} {edges:7} {kept:7} {'FOUND' if bad else '-':>8}",
            re.sub(r"(?m)^#\d+\t.*\n", "", output) if bad else "")


def main(arguments):
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--seconds", type=int, default=600)
    parser.add_argument("--inputs", type=int, default=1000000)
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build" / "fuzz")
    parser.add_argument("targets", nargs="*", choices=[[], *seeds.SEEDS], metavar="TARGET")
    chosen = parser.parse_args(arguments)
    print(f"{'target':14} {'inputs':>9} {'seconds':>7} {'edges':>7} {'corpus':>7} {'findings':>8}")
    findings = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count() or 2) as pool:
        for row, output in pool.map(lambda target: run(target, chosen),
                                    chosen.targets or list(seeds.SEEDS)):
            print(row, flush=True)
            print(output, end="", flush=True)
            findings += bool(output)
    return findings


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
