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
CLIENTS = (1, 2, 4, 8, 16)
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
        "dirty_kb": statistics.median(field(look, "Private_Dirty") for look in looks),
        "threads": len(tasks(pid)),
        "wakes_per_second": (wakes(pid) - wakes_before) / elapsed,
        "cpu_ms_per_minute": (cpu_ms(pid) - cpu_before) * 60 / elapsed,
        "seconds": elapsed,
    }


def pin(pid, cpu):
    for task in tasks(pid):
        os.sched_setaffinity(int(task.name), {cpu})


def pinned_cpu():
    return max(os.sched_getaffinity(0))


def ask(port, count, cpu, *more):
    """What udp_client measures; more: the number of clients, the parameter's id."""
    done = subprocess.run([str(word) for word in (CLIENT, port, count, *more)],
                          stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          preexec_fn=lambda: os.sched_setaffinity(0, {cpu}))
    if done.returncode != 0:
        raise RuntimeError(f"port {port}: {done.stderr.strip()}")
    return json.loads(done.stdout)


def wait_for_answer(port, process, cpu, seconds=START_SECONDS):
    deadline = time.monotonic() + seconds
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
    """Medians for each number of clients: {"daemon": {"1": {...}, ...}, "echo": ...}."""
    for process in (daemon, echo):
        pin(process.pid, cpu)
    ports = {"daemon": CONTROL_PORT, "echo": ECHO_PORT}
    rounds = {name: {clients: [] for clients in CLIENTS} for name in ports}
    for port in ports.values():
        ask(port, options.queries // 10, cpu)  # warms up
    for _ in range(options.rounds):
        for clients in CLIENTS:
            for name, port in ports.items():
                rounds[name][clients].append(ask(port, options.queries, cpu, clients))
    return {name: {clients: medians(results) for clients, results in by_clients.items()}
            for name, by_clients in rounds.items()}


def medians(results):
    return {key: statistics.median(one[key] for one in results) for key in results[0]}


@contextmanager
def idle_device(binary=BUILD / "pluginmgr"):
    """The daemon with default log level and no agents; nobody sends it anything."""
    device = Device(str(binary))
    device.reset(SETTINGS, agents=())
    try:
        yield device.start(ready=False)
    finally:
        device.kill_all()


def idle_program(seconds, name, *arguments):
    with running(BUILD / "bench" / name, *arguments) as program:
        time.sleep(1)
        return idle(program.pid, seconds if "ticks" in arguments else 2)


PEERS = {"same libraries": ("empty_threads",), "C++ program": ("empty_cxx_threads",),
         "same libraries, TLS set up": ("empty_threads", "tls"),
         "its ticks alone": ("empty_threads", "ticks")}


def measure(options):
    """Each round starts the daemon and its peers anew, since what others on the machine load
    meanwhile changes the shares of the libraries."""
    cpu = pinned_cpu()
    looks = {name: [] for name in ("daemon", *PEERS)}
    for left in reversed(range(options.rounds)):
        for name, words in PEERS.items():
            looks[name].append(idle_program(options.idle, *words))
        if options.before:
            with idle_device(options.before) as daemon:
                wait_for_answer(CONTROL_PORT, daemon, cpu)
                time.sleep(SETTLE_SECONDS)
                looks.setdefault("before", []).append(idle(daemon.pid, options.idle))
        with idle_device() as daemon:
            wait_for_answer(CONTROL_PORT, daemon, cpu)
            time.sleep(SETTLE_SECONDS)
            looks["daemon"].append(idle(daemon.pid, options.idle))
            if left == 0:
                with running(BUILD / "bench/udp_echo", ECHO_PORT) as echo:
                    wait_for_answer(ECHO_PORT, echo, cpu)
                    queries = compare_queries(options, daemon, echo, cpu)
    return {"idle": {name: medians(results) for name, results in looks.items()},
            "queries": queries}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--before", help="an older build of the daemon")
    parser.add_argument("--rounds", type=int, required=True)
    parser.add_argument("--idle", type=float, required=True, help="seconds")
    parser.add_argument("--queries", type=int, required=True)
    print(json.dumps(measure(parser.parse_args())))
    return 0


if __name__ == "__main__":
    sys.exit(main())
