# SPDX-License-Identifier: Apache-2.0
"""Load: control queries at full speed and upgrades without end. Runs inside the lab:

    python3 lab/sandbox.py --out build/torture -- /usr/bin/python3 -m lab.torture.load KIND [N]

queries: N control queries (default 1,000,000) from four clients, each waiting for its answer.
flood: N of them (default 200,000) from four clients that keep 256 unanswered ones each, more than
the daemon's socket holds. The kernel counts those that the socket refused; all others must be
answered, once.
upgrades: N upgrades (default 200) of one plug-in, one after the other, each of a new version."""
import itertools
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
PATIENCE = 3  # seconds that a client waits for any answer
LOG_LIMIT = 512 * 1024 + 8192  # a file is rotated after the line that fills it
LOGS = ("plugin_debug.log", "plugin_err.log", "plugin_msg.log")
STEADY = ("descriptors", "threads", "children", "processes")
RSS_GROWTH = 1.1


def figures(device):
    """What must not grow. children: the daemon's own, with dead ones that it has not taken leave
    of; processes: all of the device that live."""
    pid = device.pid()
    status = read_text(f"/proc/{pid}/status")
    number = {line.split(":")[0]: line.split()[1] for line in status.splitlines() if line.split()[1:]}
    tasks = f"/proc/{pid}/task/"
    children = [read_text(f"{tasks}{task}/children").split() for task in os.listdir(tasks)]
    return {"descriptors": len(os.listdir(f"/proc/{pid}/fd")), "threads": int(number["Threads"]),
            "children": sum(map(len, children)), "processes": len(device_processes()),
            "rss_kb": int(number["VmRSS"]), "largest_log": largest_log()}


def largest_log():
    folder = os.path.dirname(DEBUG_LOG)
    return max(os.path.getsize(os.path.join(folder, name)) for name in os.listdir(folder)
               if name.startswith(LOGS))


def grown(samples):
    """What was not steady from the second sample on, in words."""
    wrong = [f"{name}: {sorted({one[name] for one in samples[1:]})}" for name in STEADY
             if len({one[name] for one in samples[1:]}) > 1]
    if samples[-1]["rss_kb"] > samples[1]["rss_kb"] * RSS_GROWTH:
        wrong.append(f"rss_kb: {samples[1]['rss_kb']} to {samples[-1]['rss_kb']}")
    if max(one["largest_log"] for one in samples) > LOG_LIMIT:
        wrong.append("a log outgrew its limit")
    return wrong


def refused(port):
    """Datagrams that the kernel could not put into the socket bound to this port."""
    rows = (line.split() for line in read_text("/proc/net/udp").splitlines()[1:])
    return sum(int(row[-1]) for row in rows if row[1].endswith(f":{port:04X}"))


def client(count, window, number, results):
    """Sends `count` queries, `window` of them unanswered at a time; puts a dict of figures. Answers
    come in the order of the queries: what one of them passes over is not waited for any longer."""
    waiting, sent, worst = {}, 0, 0.0
    told = {"answered": 0, "strange": 0, "refused_answers": 0}
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
        one.settimeout(PATIENCE)
        one.connect(CONTROL_PORT)
        while sent < count or waiting:
            while sent < count and len(waiting) < window:
                cookie = (number << 28) + sent
                waiting[cookie] = time.monotonic()
                one.send(HEADER.pack(b"", cookie, 0x7F000001, 1, 0, 0, 0) + TEXTS[sent % len(TEXTS)])
                sent += 1
            try:
                cookie = HEADER.unpack_from(one.recv(65536))[1]
            except TimeoutError:
                waiting.clear()
                continue
            began = waiting.get(cookie)
            told["answered" if began else "strange"] += 1
            worst = max(worst, time.monotonic() - (began or time.monotonic()))
            for passed in list(itertools.takewhile(lambda old: old <= cookie, waiting)):
                del waiting[passed]
        told["refused_answers"] = refused(one.getsockname()[1])
    results.put(told | {"worst": worst})


def all_clients(count, window, totals):
    """A round of queries from all clients at once, added to the totals."""
    results = multiprocessing.Queue()
    workers = [multiprocessing.Process(target=client, args=(count // CLIENTS, window, number, results))
               for number in range(CLIENTS)]
    for worker in workers:
        worker.start()
    for told in [results.get() for _ in workers]:
        worst = max(totals.get("worst", 0), told["worst"])
        totals.update({name: totals.get(name, 0) + told[name] for name in told}, worst=worst)
    for worker in workers:
        worker.join()


def queries(count, window=1):
    platform, device = Platform(), Device()
    platform.cloud.device.active = True
    device.reset(settings=ENROLLED | {"loglevel": 8}, agents=())
    device.start()
    wait_until(lambda: device.plugins()["pluginmgr"]["status"] == NOT_OFFERED, 20, "the check")
    samples, totals, began = [figures(device)], {}, time.monotonic()
    for _ in range(10):
        all_clients(count // 10, window, totals)
        samples.append(figures(device))
    seconds = time.monotonic() - began
    not_taken = refused(CONTROL_PORT[1])
    taken = count - not_taken
    wrong = [f"{totals['strange']} answers to nothing"] if totals["strange"] else []
    report = totals | {"runs": taken, "passed": totals["answered"] + totals["refused_answers"],
                       "refused": not_taken, "per_second": round(count / seconds),
                       "worst": round(totals["worst"], 3)}
    return device, report | {"wrong": wrong}, samples


def flood(count):
    return queries(count, window=256)


def upgrades(count):
    platform, device = Platform(), Device()
    platform.cloud.device.active = True
    name, done, wrong = "cloud_phone", 0, []
    device.reset(settings=ENROLLED | {"loglevel": 8}, agents=())
    platform.cloud.offer(build(name, "1.0.1", files={"/var/run/" + name: b"#!/bin/sh\nexit 0\n"}))
    device.shift_time(0, RATE)
    device.start(faketime=True)
    wait_until(lambda: device.plugins()["pluginmgr"]["status"] == NOT_OFFERED, 20, "the check")
    samples = [figures(device)]
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
        except AssertionError as failure:
            wrong.append(f"upgrade {turn}: {failure}")
        if turn % max(count // 10, 1) == 0:
            time.sleep(3 / RATE)  # of the plug-in's restart
            samples.append(figures(device))
    return device, {"runs": count, "passed": done, "wrong": wrong}, samples


def tell(job, *arguments):
    """Runs a job that gives (device, report, samples) and prints what came of it."""
    began = time.monotonic()
    device, report, samples = job(*arguments)
    device.kill_all()
    print(json.dumps(report | {"wrong": report["wrong"] + grown(samples), "samples": samples,
                               "seconds": round(time.monotonic() - began, 1)}))


KINDS = {"queries": (queries, 1_000_000), "flood": (flood, 200_000), "upgrades": (upgrades, 200)}


def main():
    job, count = KINDS[sys.argv[1]]
    tell(job, int(sys.argv[2]) if len(sys.argv) > 2 else count)


if __name__ == "__main__":
    main()
