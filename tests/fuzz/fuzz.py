# SPDX-License-Identifier: Apache-2.0
"""Runs the fuzz targets and prints a table; the exit status is the number of findings.

    python3 tests/fuzz/fuzz.py [--seconds N] [--inputs N] [--build FOLDER] [TARGET...]

Each target begins with its seeds (seeds.py) and with every input that was once a finding
(corpus/TARGET/), and ends after so many inputs or seconds, whatever comes first. What it learns
stays in learnt/TARGET of the build folder for the next run, a new finding in findings/ there.
"""

import argparse
import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

import seeds

HERE = pathlib.Path(__file__).resolve().parent
MEMORY = "/dev/shm"  # most inputs become a file
LARGEST = 8192  # bytes of an input
SLOWEST = 10  # seconds that one input may take


def prepare(target, work):
    """Writes a target's seeds and dictionary; the folders and options to run it with."""
    folder = work / "seeds" / target
    folder.mkdir(parents=True, exist_ok=True)
    for number, seed in enumerate(seeds.SEEDS[target]):
        (folder / f"{number:02}").write_bytes(seed)
    learnt = work / "learnt" / target
    learnt.mkdir(parents=True, exist_ok=True)
    words = work / "seeds" / f"{target}.words"
    words.write_text("".join(f'"{word}"\n' for word in seeds.WORDS.get(target, ["\\xff"])))
    found = HERE / "corpus" / target
    return [f"-dict={words}", str(learnt), str(folder)] + ([str(found)] if found.exists() else [])


def run(target, chosen):
    """One target; its row of the table and its output."""
    work = chosen.build.resolve() / "fuzz"
    findings = work / "findings"
    findings.mkdir(parents=True, exist_ok=True)
    command = [str(work / target), f"-max_total_time={chosen.seconds}", f"-runs={chosen.inputs}",
               f"-max_len={LARGEST}", f"-timeout={SLOWEST}", "-print_final_stats=1",
               f"-artifact_prefix={findings}/{target}-"] + prepare(target, work)
    began = time.monotonic()
    with tempfile.TemporaryDirectory(dir=MEMORY) as private:
        done = subprocess.run(command, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                              check=False, env=os.environ | {"TMPDIR": private})
    seconds = time.monotonic() - began
    output = done.stderr.decode(errors="replace")
    inputs = int((re.findall(r"number_of_executed_units: *(\d+)", output) or [0])[-1])
    edges = int((re.findall(r"cov: (\d+)", output) or [0])[-1])
    kept = int((re.findall(r"corp: (\d+)", output) or [0])[-1])
    bad = done.returncode != 0
    return (f"{target:14} {inputs:9} {seconds:7.0f} {edges:7} {kept:7} {'FOUND' if bad else '-':>8}",
            re.sub(r"(?m)^#\d+\t.*\n", "", output) if bad else "")


def main(arguments):
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--seconds", type=int, default=600)
    parser.add_argument("--inputs", type=int, default=1000000)
    parser.add_argument("--build", type=pathlib.Path, default=HERE.parent.parent / "build" / "fuzz")
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
