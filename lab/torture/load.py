# SPDX-License-Identifier: Apache-2.0
"""Load, and whether anything grows under it. Runs inside the lab:

    python3 lab/sandbox.py --out build/torture -- /usr/bin/python3 -m lab.torture.load queries [N]
    python3 lab/sandbox.py --out build/torture -- /usr/bin/python3 -m lab.torture.load upgrades [N]

queries: N control queries (default 1,000,000) from four clients, each waiting for its answer.
upgrades: N upgrades (default 200) of one plug-in, one after the other, each of a new version."""
import json
import multiprocessing
import os
import socket
import sys
import time

from lab.device import (CONTROL_PORT, DEBUG_LOG, ENROLLED, HEADER, NOT_OFFERED, Device,
                        device_processes, read_text, wait_until)
from lab.package import build
from lab.platform import Platform

CLIENTS = 4
RATE = 4  # of the daemon's clock during the upgrades, whose pauses are seconds
RESTARTED = 7
TEXTS = [f"method=gw.config.get&id={number}".encode() for number in (80000, 80005, 80037, 80031)]
LOG_LIMIT = 512 * 1024
LOGS = ("plugin_debug.log", "plugin_err.log", "plugin_msg.log")


def figures(device):
    """What must not grow."""
    pid = device.pid()
    status = read_text(f"/proc/{pid}/status")
    number = {line.split(":")[0]: line.split()[1] for line in status.splitlines() if line.split()[1:]}
    return {"descriptors": len(os.listdir(f"/proc/{pid}/fd")), "threads": int(number["Threads"]),
            "rss_kb": int(number["VmRSS"]), "processes": len(device_processes())}


def largest_log():
    folder = os.path.dirname(DEBUG_LOG)
    return max(os.path.getsize(os.path.join(folder, name)) for name in os.listdir(folder)
               if name.startswith(LOGS))


def client(count, number, results):
    """Sends `count` queries one at a time; puts (answered, lost, worst seconds)."""
    lost, worst = 0, 0.0
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
        one.settimeout(10)
        one.connect(CONTROL_PORT)
        for turn in range(count):
            cookie = (number << 28) + turn
            began = time.monotonic()
            one.send(HEADER.pack(b"", cookie, 0x7F000001, 1, 0, 0, 0) + TEXTS[turn % len(TEXTS)])
            try:
                while HEADER.unpack_from(one.recv(65536))[1] != cookie:
                    pass
            except TimeoutError:
                lost += 1
            worst = max(worst, time.monotonic() - began)
    results.put((count - lost, lost, worst))


def queries(count):
    platform, device = Platform(), Device()
    platform.cloud.device.active = True
    device.reset(settings=ENROLLED | {"loglevel": 8}, agents=())
    device.start()
    wait_until(lambda: device.plugins()["pluginmgr"]["status"] == NOT_OFFERED, 20, "the check")
    samples, results = [figures(device)], multiprocessing.Queue()
    began, answered, lost, worst = time.monotonic(), 0, 0, 0.0
    for _ in range(10):
        workers = [multiprocessing.Process(target=client, args=(count // (10 * CLIENTS), number, results))
                   for number in range(CLIENTS)]
        for worker in workers:
            worker.start()
        for good, bad, slow in [results.get() for _ in workers]:
            answered, lost, worst = answered + good, lost + bad, max(worst, slow)
        for worker in workers:
            worker.join()
        samples.append(figures(device))
    seconds = time.monotonic() - began
    report = {"queries": answered + lost, "answered": answered, "lost": lost,
              "seconds": round(seconds, 1), "per_second": round((answered + lost) / seconds),
              "worst_seconds": round(worst, 3), "largest_log": largest_log()}
    return device, report, samples


def upgrades(count):
    platform, device = Platform(), Device()
    platform.cloud.device.active = True
    name, done = "cloud_phone", 0
    device.reset(settings=ENROLLED | {"loglevel": 8}, agents=())
    platform.cloud.offer(build(name, "1.0.1", files={"/var/run/" + name: b"#!/bin/sh\nexit 0\n"}))
    device.shift_time(0, RATE)
    device.start(faketime=True)
    wait_until(lambda: device.plugins()["pluginmgr"]["status"] == NOT_OFFERED, 20, "the check")
    samples, began = [figures(device)], time.monotonic()
    for turn in range(1, count + 1):
        version = f"1.{turn // 100}.{turn % 100}"
        platform.reset()
        platform.cloud.device.active = True
        platform.cloud.offer(build(name, version, files={"/var/run/" + name: b"#!/bin/sh\nexit 0\n"}))
        try:
            device.get(80025)
            wait_until(lambda: device.plugins()[name]["pluginNewVersion"] == version, 10, "the offer")
            device.action(pluginName=name, pluginAction="update")
            wait_until(lambda: device.plugins()[name]["pluginVersion"] == version, 20, "the upgrade")
            device.wait_status(name, RESTARTED)
            done += 1
        except AssertionError as wrong:
            print(f"upgrade {turn}: {wrong}", file=sys.stderr, flush=True)
        if turn % max(count // 10, 1) == 0:
            samples.append(figures(device))
    report = {"upgrades": count, "done": done, "seconds": round(time.monotonic() - began, 1),
              "largest_log": largest_log()}
    return device, report, samples


KINDS = {"queries": (queries, 1_000_000), "upgrades": (upgrades, 200)}


def main():
    job, count = KINDS[sys.argv[1]]
    device, report, samples = job(int(sys.argv[2]) if len(sys.argv) > 2 else count)
    print(json.dumps(report | {"samples": samples}))
    device.kill_all()


if __name__ == "__main__":
    main()
