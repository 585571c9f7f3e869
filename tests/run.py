# SPDX-License-Identifier: Apache-2.0
"""Runs every test of the project and closes with the line 'N passed, N failed'.

The unit tests run as they are and under ASan and UBSan; each file of tests/system runs in a
sandbox of its own, several side by side, for they mostly sleep; what has to be built for the
others is built meanwhile. Each fuzz target runs for a few seconds and counts as one test. What a
run leaves (output, JUnit results, logs of failed tests) is in build/test/.

    python3 tests/run.py [--build PRESET] [FILE...]

--build runs the system tests on the daemon of another preset (asan, tsan); what its sanitizer
reports fails the file. FILEs are system test files to run alone.
"""

import argparse
import concurrent.futures
import dataclasses
import os
import pathlib
import shutil
import subprocess
import sys
import time
import xml.etree.ElementTree as xml

ROOT = pathlib.Path(__file__).resolve().parent.parent
OUT = ROOT / "build" / "test"
PYTHON = "/usr/bin/python3"
LIMIT = 420  # seconds that one test job may take; a build takes what the machine leaves it
REPORT = "sanitizer"  # reports go to files whose names begin so
SANITIZERS = {
    "ASAN_OPTIONS": f"log_path=/lab-out/{REPORT} verify_asan_link_order=0",  # faketime is first
    # Without its second at exit, in which the daemon's successor would still find it running.
    "TSAN_OPTIONS": f"log_path=/lab-out/{REPORT} exitcode=0 report_thread_leaks=0 "
                    "atexit_sleep_ms=0 suppressions=/lab-src/tests/tsan.supp",
}
FUZZ = ROOT / "tests" / "fuzz"
FUZZ_SECONDS = 4
SANDBOXES = 3 * (os.cpu_count() or 2)


@dataclasses.dataclass
class Job:
    """One command, and the jobs that only its success makes possible."""
    name: str
    command: list
    results: pathlib.Path | None = None  # JUnit; without it the exit status tells
    then: list = dataclasses.field(default_factory=list)
    is_test: bool = True


def build_job(preset, *then):
    """A build, which gives way to the tests beside it."""
    return Job(f"build {preset}", ["nice", str(ROOT / "dev"), "build", preset], then=[*then],
               is_test=False)


def unit_job(preset):
    """The unit tests of one preset."""
    results = OUT / f"unit-{preset}.xml"
    command = [str(ROOT / "build" / preset / "unit_tests"), f"--gtest_output=xml:{results}"]
    return Job(f"unit {preset}", command, results)


def system_job(path, preset):
    """One file of system tests in a sandbox of its own."""
    out = OUT / path.stem
    out.mkdir()
    command = [PYTHON, str(ROOT / "lab" / "sandbox.py"), "--out", str(out), "--build",
               str(ROOT / "build" / preset), "--", PYTHON, "-m", "pytest", "-q", "-p",
               "no:cacheprovider", "--junit-xml=/lab-out/results.xml",
               f"/lab-src/tests/system/{path.name}"]
    return Job(f"system {path.stem}", command, out / "results.xml")


def fuzz_job(target):
    """One fuzz target for a few seconds."""
    command = [PYTHON, str(FUZZ / "fuzz.py"), f"--seconds={FUZZ_SECONDS}", target]
    return Job(f"fuzz {target}", command)


def counts(results):
    """Passed and failed tests of a JUnit file; a file that is not there is one failure."""
    if not results.exists():
        return 0, 1
    passed = failed = 0
    for case in xml.parse(results).iter("testcase"):
        bad = case.find("failure") is not None or case.find("error") is not None
        skipped = case.find("skipped") is not None
        failed += bad
        passed += not bad and not skipped
    return passed, failed


def run(job):
    """Runs one job; returns its output, counts and seconds."""
    in_sandbox = job.results is not None and job.results.parent != OUT
    environment = os.environ | (SANITIZERS if in_sandbox else {})
    began = time.monotonic()
    try:
        done = subprocess.run(job.command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=LIMIT if job.is_test else None, cwd=ROOT, env=environment, check=False)
        output, code = done.stdout.decode(errors="replace"), done.returncode
    except subprocess.TimeoutExpired as late:
        output, code = (late.stdout or b"").decode(errors="replace") + "\ntimed out", -1
    passed, failed = counts(job.results) if job.results else (int(code == 0 and job.is_test), 0)
    reports = sorted(job.results.parent.glob(REPORT + ".*")) if in_sandbox else []
    output += "".join(report.read_text(errors="replace") for report in reports)
    if (code != 0 or reports) and failed == 0:
        failed = 1
    (OUT / f"{job.name.replace(' ', '-')}.log").write_text(output)
    return output, passed, failed, time.monotonic() - began


def run_all(jobs):
    """Runs jobs, and after each success what follows it. Yields each job with its result."""
    with concurrent.futures.ThreadPoolExecutor(SANDBOXES) as pool:
        running = {pool.submit(run, job): job for job in jobs}
        while running:
            done = concurrent.futures.wait(running, return_when="FIRST_COMPLETED").done
            for future in done:
                job = running.pop(future)
                result = future.result()
                if result[2] == 0:
                    running |= {pool.submit(run, after): after for after in job.then}
                yield job, *result


def everything():
    """The unit tests and fuzz targets, with the builds that some of them need."""
    fuzz = [fuzz_job(path.stem) for path in sorted(FUZZ.glob("*.cpp")) if path.stem != "world"]
    return [build_job("asan", unit_job("asan"), build_job("fuzz", *fuzz)), unit_job("release")]


def main(arguments):
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--build", default="release", metavar="PRESET")
    parser.add_argument("files", nargs="*", type=pathlib.Path, metavar="FILE")
    chosen = parser.parse_args(arguments)
    shutil.rmtree(OUT, ignore_errors=True)
    OUT.mkdir(parents=True)
    jobs = everything() if not chosen.files and chosen.build == "release" else []
    # The longest files first: they run the longest.
    files = sorted((ROOT / "tests" / "system").glob("test_*.py"),
                   key=lambda path: -path.stat().st_size)
    jobs += [system_job(path, chosen.build) for path in chosen.files or files]
    passed = failed = 0
    for job, output, good, bad, seconds in run_all(jobs):
        print(f"{job.name:32} {good:4} passed {bad:3} failed {seconds:6.1f} s", flush=True)
        if bad:
            print(output, flush=True)
        passed += good
        failed += bad
    print(f"{passed} passed, {failed} failed")
    return 1 if failed or not passed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
