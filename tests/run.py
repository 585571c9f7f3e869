# SPDX-License-Identifier: Apache-2.0
"""Runs every test of the project and closes with the line 'N passed, N failed', with ', N skipped'
behind it if there are any.

The unit tests run as they are and under ASan and UBSan; each file of tests/system runs in a
sandbox of its own, several side by side, for they mostly sleep; what has to be built for the
others is built meanwhile. Each fuzz target runs for a few seconds and counts as one test. What a
run leaves (output, JUnit results, logs of failed tests) is in build/test/.

    python3 tests/run.py [--build PRESET] [--skip-unavailable] [FILE...]

--build runs the system tests on the daemon of another preset (asan, tsan); what its sanitizer
reports fails the file. FILEs are system test files to run alone, by path or name (test_boot). What
lacks a compiler is skipped, a job counting as one; with --skip-unavailable also what this machine's
kernel does not allow: single tests, or all that runs in a sandbox.
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
SYSTEM = ROOT / "tests" / "system"
SANDBOX = [PYTHON, str(ROOT / "lab" / "sandbox.py")]
SKIPPED = 77  # ./dev's status when something is not installed
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

    def tests(self):
        """How many test jobs it is with those that follow it."""
        return self.is_test + sum(after.tests() for after in self.then)


@dataclasses.dataclass
class Result:
    """What came of a job."""
    output: str = ""
    passed: int = 0
    failed: int = 0
    skipped: int = 0
    seconds: float = 0.0


def build_job(preset, *then):
    """A build, which gives way to the tests beside it."""
    return Job(f"build {preset}", ["nice", str(ROOT / "dev"), "build", preset], then=[*then],
               is_test=False)


def unit_job(preset):
    """The unit tests of one preset."""
    results = OUT / f"unit-{preset}.xml"
    command = [str(ROOT / "build" / preset / "unit_tests"), f"--gtest_output=xml:{results}"]
    return Job(f"unit {preset}", command, results)


def system_job(path, preset, options):
    """One file of system tests in a sandbox of its own."""
    out = OUT / path.stem
    out.mkdir()
    command = [*SANDBOX, "--out", str(out), "--build", str(ROOT / "build" / preset), "--", PYTHON,
               "-m", "pytest", "-q", "-p", "no:cacheprovider", "--junit-xml=/lab-out/results.xml",
               *options, f"/lab-src/tests/system/{path.name}"]
    return Job(f"system {path.stem}", command, out / "results.xml")


def fuzz_job(target):
    """One fuzz target for a few seconds."""
    command = [PYTHON, str(FUZZ / "fuzz.py"), f"--seconds={FUZZ_SECONDS}", target]
    return Job(f"fuzz {target}", command)


def counts(results):
    """Passed, failed and skipped tests of a JUnit file; a file that is not there is one failure."""
    if not results.exists():
        return 0, 1, 0
    kinds = [next((kind for kind in ("failure", "error", "skipped") if case.find(kind) is not None), "")
             for case in xml.parse(results).iter("testcase")]
    skipped, passed = kinds.count("skipped"), kinds.count("")
    return passed, len(kinds) - passed - skipped, skipped


def run(job):
    """Runs one job; its result."""
    in_sandbox = job.results is not None and job.results.parent != OUT
    environment = os.environ | (SANITIZERS if in_sandbox else {})
    began = time.monotonic()
    try:
        done = subprocess.run(job.command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=LIMIT if job.is_test else None, cwd=ROOT, env=environment, check=False)
        output, code = done.stdout.decode(errors="replace"), done.returncode
    except subprocess.TimeoutExpired as late:
        output, code = (late.stdout or b"").decode(errors="replace") + "\ntimed out", -1
    seconds = time.monotonic() - began
    if code == SKIPPED and not job.is_test:
        return Result(output, skipped=job.tests(), seconds=seconds)
    passed, failed, skipped = counts(job.results) if job.results else (int(code == 0 and job.is_test), 0, 0)
    reports = sorted(job.results.parent.glob(REPORT + ".*")) if in_sandbox else []
    output += "".join(report.read_text(errors="replace") for report in reports)
    if (code != 0 or reports) and failed == 0:
        failed = 1
    (OUT / f"{job.name.replace(' ', '-')}.log").write_text(output)
    return Result(output, passed, failed, skipped, seconds)


def run_all(jobs):
    """Runs jobs, and after each success what follows it. Yields each job with its result."""
    with concurrent.futures.ThreadPoolExecutor(SANDBOXES) as pool:
        running = {pool.submit(run, job): job for job in jobs}
        while running:
            done = concurrent.futures.wait(running, return_when="FIRST_COMPLETED").done
            for future in done:
                job = running.pop(future)
                result = future.result()
                if not result.failed and not (result.skipped and not job.is_test):
                    running |= {pool.submit(run, after): after for after in job.then}
                yield job, result


def unit_jobs():
    """The unit tests, with the build that one of them needs."""
    return [build_job("asan", unit_job("asan")), unit_job("release")]


def fuzz_jobs():
    """The fuzz targets, behind their build."""
    return [build_job("fuzz", *(fuzz_job(path.stem) for path in sorted(FUZZ.glob("*.cpp"))
                                if path.stem != "world"))]


def test_file(name):
    """The system test file of a path or of a bare name."""
    path = SYSTEM / pathlib.Path(name).with_suffix(".py").name
    if not path.exists():
        raise argparse.ArgumentTypeError(f"{name} is none of " + " ".join(
            sorted(one.stem for one in SYSTEM.glob("test_*.py"))))
    return path


def sandbox_is_possible():
    return subprocess.run([*SANDBOX, "--", "/bin/true"], stdout=subprocess.DEVNULL,
                          stderr=subprocess.DEVNULL, check=False).returncode == 0


def plan(chosen):
    """The jobs of a run, and how many of it cannot be done here."""
    # The longest files first: they run the longest.
    files = chosen.files or sorted(SYSTEM.glob("test_*.py"), key=lambda path: -path.stat().st_size)
    whole = not chosen.files and chosen.build == "release"
    jobs = unit_jobs() if whole else []
    fuzz = fuzz_jobs() if whole else []
    if chosen.skip_unavailable and not sandbox_is_possible():
        skipped = len(files) + sum(job.tests() for job in fuzz)
        print(f"no sandbox can be made here: {skipped} files and fuzz targets skipped", flush=True)
        return jobs, skipped
    if whole:
        jobs[0].then += fuzz  # one big build after the other
    options = ["--skip-unavailable"] if chosen.skip_unavailable else []
    return jobs + [system_job(path, chosen.build, options) for path in files], 0


def show(job, result):
    print(f"{job.name:32} {result.passed:4} passed {result.failed:3} failed {result.seconds:6.1f} s"
          + (f" {result.skipped:4} skipped" if result.skipped else ""), flush=True)
    if result.failed or (result.skipped and not job.is_test):
        print(result.output, flush=True)


def main(arguments):
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--build", default="release", metavar="PRESET")
    parser.add_argument("--skip-unavailable", action="store_true",
                        help="skip and count what this machine does not allow")
    parser.add_argument("files", nargs="*", type=test_file, metavar="FILE")
    chosen = parser.parse_args(arguments)
    shutil.rmtree(OUT, ignore_errors=True)
    OUT.mkdir(parents=True)
    jobs, skipped = plan(chosen)
    passed = failed = 0
    for job, result in run_all(jobs):
        show(job, result)
        passed += result.passed
        failed += result.failed
        skipped += result.skipped
    print(f"{passed} passed, {failed} failed" + (f", {skipped} skipped" if skipped else ""))
    return 1 if failed or not passed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
