#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The part of the bench about growth, in the sandbox: memory and processor time of the daemon by
the number of plug-ins in its list. Prints one line of JSON, a list of points.

Processor time, because the time on the clock of a check is mostly the lab's platform."""
import argparse
import json
import statistics
import sys
import time

from inside import (BUILD, CONTROL_PORT, SETTINGS, SETTLE_SECONDS, ask, cpu_ms, idle, pin,
                    pinned_cpu, wait_for_answer)
from lab.device import ENROLLED, Device, wait_until
from lab.package import build
from lab.platform import Platform

STATUS_ID = 80005
CHECK_ID = 80025
CHECKS = 5
LONG_NOTE = "All of it is better than ever. " * 16
MEMORY_SECONDS = 2


def names(count):
    return [f"cloud_plugin_{number:02}" for number in range(1, count + 1)]


def offer_all(platform, count, note):
    for name in names(count):
        platform.cloud.offer(build(name, "1.1.0"), note=note)


def memory(pid):
    time.sleep(SETTLE_SECONDS)
    look = idle(pid, MEMORY_SECONDS)
    return {key: look[key] for key in ("pss_kb", "dirty_kb")}


def check_ms(device, pid):
    def once():
        before = cpu_ms(pid)
        assert device.get(CHECK_ID), "no answer to a check"
        return cpu_ms(pid) - before
    return statistics.median(once() for _ in range(CHECKS))


def status(options, device, pid, cpu):
    """Processor time of one status document, in microseconds, and its length."""
    looks = []
    for _ in range(options.rounds):
        before = cpu_ms(pid)
        ask(CONTROL_PORT, options.queries, cpu, 1, STATUS_ID)
        looks.append((cpu_ms(pid) - before) * 1000 / options.queries)
    return {"us": statistics.median(looks),
            "bytes": len(device.query(f"method=gw.config.get&id={STATUS_ID}").text)}


def point(options, platform, device, count, cpu):
    plugins = dict.fromkeys(names(count), "1.0.0")
    result = {"plugins": count}
    device.reset(settings=SETTINGS, plugins=plugins, agents=())
    daemon = device.start(ready=False)
    wait_for_answer(CONTROL_PORT, daemon, cpu)
    result["idle"] = memory(daemon.pid)

    platform.reset()
    platform.cloud.device.active = True
    offer_all(platform, count, "Made in the lab.")
    device.reset(settings=ENROLLED | {"loglevel": None}, plugins=plugins, agents=())
    daemon = device.start()
    wait_until(lambda: all(device.plugins()[name]["pluginNewVersion"] == "1.1.0"
                           for name in names(count)), what="the offers")
    result["connected"] = memory(daemon.pid)
    result["check_ms"] = check_ms(device, daemon.pid)
    pin(daemon.pid, cpu)
    result["query"] = status(options, device, daemon.pid, cpu)
    offer_all(platform, count, LONG_NOTE)
    device.get(CHECK_ID)
    result["document"] = status(options, device, daemon.pid, cpu)
    return result


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, required=True)
    parser.add_argument("--queries", type=int, required=True)
    parser.add_argument("counts", type=int, nargs="+", help="of plug-ins")
    options = parser.parse_args()
    platform, device = Platform(), Device(str(BUILD / "pluginmgr"))
    cpu = pinned_cpu()
    print(json.dumps([point(options, platform, device, count, cpu) for count in options.counts]))
    device.kill_all()
    return 0


if __name__ == "__main__":
    sys.exit(main())
