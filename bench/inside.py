#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The half of the bench that runs in the sandbox: the daemon idle and under queries.

Prints one line of JSON. The cloud is out of reach at once (the API server is a loopback address
where nobody listens), so the daemon does its own work and waits for nobody.
"""
import argparse
import json
import os
import statistics
import subprocess
import sys
import time
from contextlib import contextmanager
from pathlib import Path

from lab.device import CONTROL_PORT as CONTROL_ADDRESS, Device

BUILD = Path("/lab-build")
CLIENT = BUILD / "bench/udp_client"
NOBODY = "127.0.0.1"
SETTINGS = {"cloudserver": "off", "loglevel": None, "api_server": NOBODY,
            "accounts_server": NOBODY, "quorvel_server": NOBODY}
CONTROL_PORT = CONTROL_ADDRESS[1]
ECHO_PORT = 6908
START_SECONDS = 20
SETTLE_SECONDS = 4  # until the first duties after the start are over


@contextmanager
def running(*command):
    process = subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL,
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        yield process
    finally:
        process.kill()
        process.wait()


def tasks(pid):
    return list(Path(f"/proc/{pid}/task").iterdir())


def field(text, name):
    """The number behind a name in a /proc file of lines."""
    line = next(line for line in text.splitlines() if line.startswith(name + ":"))
    return int(line.split()[1])


def wakes(pid):
    return sum(field((task / "status").read_text(), "voluntary_ctxt_switches")
               for task in tasks(pid))


def cpu_ms(pid):
    """On the processor so far, children not counted; in the scheduler's nanoseconds if it tells."""
    try:
        return sum(int((task / "schedstat").read_text().split()[0]) for task in tasks(pid)) / 1e6
    except FileNotFoundError:
        words = Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
        return (int(words[11]) + int(words[12])) * 1000 / os.sysconf("SC_CLK_TCK")


def idle(pid, seconds):
    """Wake-ups and CPU over the seconds; memory as the median of looks taken meanwhile."""
    wakes_before, cpu_before, start = wakes(pid), cpu_ms(pid), time.monotonic()
    looks = []
    for _ in range(5):
        time.sleep(seconds / 5)
        looks.append(Path(f"/proc/{pid}/smaps_rollup").read_text())
    elapsed = time.monotonic() - start
    return {
        "pss_kb": statistics.median(field(look, "Pss") for look in looks),
        "rss_kb": statistics.median(field(look, "Rss") for look in looks),
        "threads": len(tasks(pid)),
        "wakes_per_second": (wakes(pid) - wakes_before) / elapsed,
        "cpu_ms_per_minute": (cpu_ms(pid) - cpu_before) * 60 / elapsed,
        "seconds": elapsed,
    }


def pin(pid, cpu):
    for task in tasks(pid):
        os.sched_setaffinity(int(task.name), {cpu})


def ask(port, count, cpu):
    done = subprocess.run([CLIENT, str(port), str(count)], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True,
                          preexec_fn=lambda: os.sched_setaffinity(0, {cpu}))
    if done.returncode != 0:
        raise RuntimeError(f"port {port}: {done.stderr.strip()}")
    return json.loads(done.stdout)


def wait_for_answer(port, process, cpu):
    deadline = time.monotonic() + START_SECONDS
    while time.monotonic() < deadline:
        if process.poll() is not None:
            raise RuntimeError(f"{process.args[0]} ended with {process.returncode}")
        try:
            ask(port, 1, cpu)
            return
        except RuntimeError:
            time.sleep(0.2)
    raise RuntimeError(f"nobody answers on port {port}")


def compare_queries(options, daemon, echo, cpu):
    for process in (daemon, echo):
        pin(process.pid, cpu)
    ports = {"daemon_queries": CONTROL_PORT, "echo_queries": ECHO_PORT}
    rounds = {name: [] for name in ports}
    for name, port in ports.items():
        ask(port, options.queries // 10, cpu)  # warms up
    for _ in range(options.rounds):
        for name, port in ports.items():
            rounds[name].append(ask(port, options.queries, cpu))
    return {name: {key: statistics.median(one[key] for one in results) for key in results[0]}
            for name, results in rounds.items()}


@contextmanager
def idle_device():
    """The daemon with default log level and no agents; nobody sends it anything."""
    device = Device(str(BUILD / "pluginmgr"))
    device.reset(SETTINGS, agents=())
    try:
        yield device.start(ready=False)
    finally:
        device.kill_all()


def idle_program(*arguments):
    with running(BUILD / "bench/empty_threads", *arguments) as program:
        time.sleep(1)
        return idle(program.pid, 3)


def measure(options):
    cpu = max(os.sched_getaffinity(0))
    empty = [idle_program()]
    result = {"tls_idle": idle_program("tls")}
    with idle_device() as daemon:
        wait_for_answer(CONTROL_PORT, daemon, cpu)
        time.sleep(SETTLE_SECONDS)
        result["daemon_idle"] = idle(daemon.pid, options.idle)
        with running(BUILD / "bench/udp_echo", ECHO_PORT) as echo:
            wait_for_answer(ECHO_PORT, echo, cpu)
            result |= compare_queries(options, daemon, echo, cpu)
    # Before and after, since what others on the machine load changes the shares of the libraries.
    empty.append(idle_program())
    result["empty_idle"] = {key: statistics.mean(one[key] for one in empty) for key in empty[0]}
    return result


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, required=True)
    parser.add_argument("--idle", type=float, required=True, help="seconds")
    parser.add_argument("--queries", type=int, required=True)
    print(json.dumps(measure(parser.parse_args())))
    return 0


if __name__ == "__main__":
    sys.exit(main())
