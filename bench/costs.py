#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The part of the bench that counts, in the sandbox: system calls (strace) and instructions
(callgrind) of the daemon for each idle second, control query and upgrade check. Prints one line of
JSON. Counts hardly vary from run to run, so there is only one."""
import argparse
import json
import signal
import subprocess
import sys
import time
from contextlib import contextmanager
from pathlib import Path

from inside import CONTROL_PORT, SETTINGS, SETTLE_SECONDS, ask, pinned_cpu, wait_for_answer
from lab.device import DAEMON, ENROLLED, ENVIRONMENT, LAB, NOT_OFFERED, Device, wait_until
from lab.platform import Platform

CHECK_ID = 80025
SUMMARY = Path(LAB + "strace.out")
GRIND = LAB + "callgrind.out"
VGDB = "--vgdb-prefix=" + LAB + "vgdb"
VALGRIND = ("/usr/bin/valgrind", "--tool=callgrind", VGDB, "--callgrind-out-file=" + GRIND)


class SystemCalls:
    """Counts those of a process and its threads; begin() gives the time of the beginning."""

    def __init__(self, pid):
        self._pid = pid

    def begin(self):
        SUMMARY.unlink(missing_ok=True)
        self._tracer = subprocess.Popen(["strace", "-c", "-f", "-p", str(self._pid), "-o", SUMMARY],
                                        stderr=subprocess.DEVNULL)
        start = time.monotonic()
        time.sleep(1)  # until it has taken hold of all threads
        return start

    def end(self):
        self._tracer.send_signal(signal.SIGINT)
        self._tracer.wait()
        return sum(int(words[3]) for line in SUMMARY.read_text().splitlines()
                   if len(words := line.split()) >= 5 and words[3].isdigit()
                   and words[-1] != "total")


class Instructions:
    """Counts those of a process that runs in callgrind."""

    def __init__(self, pid):
        self._pid, self._dumps = pid, 0

    def _tell(self, order):
        # The user in the environment is part of the name of valgrind's pipe.
        subprocess.run(["/usr/bin/vgdb", VGDB, f"--pid={self._pid}", order], check=True,
                       env=ENVIRONMENT, stdin=subprocess.DEVNULL, capture_output=True, timeout=20)

    def begin(self):
        self._tell("zero")
        return time.monotonic()

    def end(self):
        self._dumps += 1
        self._tell("dump")
        text = Path(f"{GRIND}.{self._dumps}").read_text()
        return next(int(line.split()[1]) for line in text.splitlines()
                    if line.startswith(("totals:", "summary:")))


def counted(counter, work):
    """Count and seconds of what the daemon does while work() runs."""
    start = counter.begin()
    work()
    elapsed = time.monotonic() - start
    return counter.end(), elapsed


def each(counter, idle_rate, number, work):
    """Count for each of the `number` things that work() does, less what idling would have had."""
    count, seconds = counted(counter, work)
    return (count - idle_rate * seconds) / number


def idle_rate(counter, seconds):
    count, elapsed = counted(counter, lambda: time.sleep(seconds))
    return count / elapsed


@contextmanager
def daemon_under(device, *tool):
    """A daemon that device has been reset for, started by the tool; gives its process."""
    process = subprocess.Popen([*tool, DAEMON], env=ENVIRONMENT, cwd="/", stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                               start_new_session=True)
    try:
        wait_for_answer(CONTROL_PORT, process, pinned_cpu(), seconds=60)
        time.sleep(SETTLE_SECONDS)
        yield process
    finally:
        process.kill()
        process.wait()
        device.kill_all()


def alone(options, device, counter, tool=()):
    """Idle seconds and queries of a daemon without a cloud."""
    device.reset(settings=SETTINGS, agents=())
    with daemon_under(device, *tool) as process:
        count = counter(process.pid)
        rate = idle_rate(count, options.idle)
        query = each(count, rate, options.queries,
                     lambda: ask(CONTROL_PORT, options.queries, pinned_cpu()))
        return {"idle second": rate, "query": query}


def checked(options, platform, device, counter, tool=()):
    """Upgrade checks of an enrolled daemon; it asks for one plug-in and for the daemon itself."""
    platform.reset()
    platform.cloud.device.active = True
    device.reset(settings=ENROLLED | {"loglevel": None}, agents=())
    with daemon_under(device, *tool) as process:
        wait_until(lambda: device.plugins()["pluginmgr"]["status"] == NOT_OFFERED, 60, "a check")

        def check():
            for _ in range(options.checks):
                assert device.get(CHECK_ID), "no answer to a check"
        check()
        count = counter(process.pid)
        rate = idle_rate(count, options.idle)
        return {"upgrade check": each(count, rate, options.checks, check)}


def measure(options):
    platform, device = Platform(), Device(options.daemon)
    calls = alone(options, device, SystemCalls)
    calls |= checked(options, platform, device, SystemCalls)
    instructions = alone(options, device, Instructions, VALGRIND)
    instructions |= checked(options, platform, device, Instructions, VALGRIND)
    return {"system calls": calls, "instructions": instructions}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--daemon", default="/lab-build/pluginmgr")
    parser.add_argument("--idle", type=float, required=True, help="seconds")
    parser.add_argument("--queries", type=int, required=True)
    parser.add_argument("--checks", type=int, required=True)
    print(json.dumps(measure(parser.parse_args())))
    return 0


if __name__ == "__main__":
    sys.exit(main())
