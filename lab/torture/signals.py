# SPDX-License-Identifier: Apache-2.0
"""SIGTERM and SIGINT at random instants over a busy daemon. Runs inside the lab:

    python3 lab/sandbox.py --out build/torture -- /usr/bin/python3 -m lab.torture.signals [COUNT [SEED]]

The daemon answers queries, checks for versions, downloads and installs when the signal comes, from
its very first millisecond on. It must end within a second with status 0 (before its handlers are
set, by the signal), no copy of it may outlive it, and its log lines are whole."""
import json
import random
import signal
import socket
import sys
import threading
import time

from lab.device import CONTROL_PORT, DEBUG_LOG, ENROLLED, HEADER, Device, wait_until
from lab.package import build
from lab.platform import Answer, Platform
from lab.torture.crash import NAME, NEW, whole_lines

LONGEST = 2.5      # seconds after the start at which a signal comes at the latest
PATIENCE = 1.0     # seconds that the end may take
HANDLERS_SET = "Version "  # part of a line that is logged after them


def chatter(over):
    """Queries and changes at full speed until told to stop."""
    texts = ("method=gw.config.get&id=80005", "method=gw.config.set&id80035=on",
             "method=gw.config.set&id80035=off", "method=gw.config.get&id=80031",
             f"method=gw.app.action&pluginName={NAME}&pluginAction=update")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
        while not over.wait(0.002):
            one.sendto(HEADER.pack(b"", 1, 0x7F000001, 1, 0, 0, 0)
                       + random.choice(texts).encode(), CONTROL_PORT)


def once(device, platform, chance):
    """(seconds after the start, signal, exit status, seconds to the end)."""
    device.reset(settings=ENROLLED, agents=())
    child = device.start(ready=False)
    over = threading.Event()
    talker = threading.Thread(target=chatter, args=(over,))
    talker.start()
    delay, number = chance.uniform(0, LONGEST), chance.choice((signal.SIGTERM, signal.SIGINT))
    time.sleep(delay)
    began = time.monotonic()
    status = device.stop(number)
    took = time.monotonic() - began
    over.set()
    talker.join()
    return delay, number, status, took


def torture(count, seed):
    """A dict of figures; `wrong` lists what went wrong."""
    chance, platform, device = random.Random(seed), Platform(), Device()
    wrong, slowest, earlier, loading = [], 0.0, 0, 0
    for number in range(count):
        platform.reset()
        platform.cloud.device.active = True
        package = build(NAME, NEW, padding=200_000)
        platform.cloud.offer(package, force=True)
        platform.dl.answer("GET /packages/*", Answer(package.data, drip=20_000, drip_pause=0.1))
        delay, sent, status, took = once(device, platform, chance)
        slowest = max(slowest, took)
        # Until its handlers are set, a signal ends it as it ends any program.
        early = status == -sent and HANDLERS_SET not in device.log()
        earlier += early
        loading += bool(platform.requests("GET /packages/*"))
        try:
            assert status == 0 or early, f"status {status}"
            assert took <= PATIENCE, f"took {took:.2f} s"
            wait_until(lambda: not device.daemons(), PATIENCE, "the end of its children")
            for log in (DEBUG_LOG, "/var/log/plugin_err.log"):
                whole_lines(log)
        except AssertionError as failure:
            wrong.append(f"run {number}, {sent!r} after {delay:.3f} s: {failure}")
    device.kill_all()
    return {"runs": count, "passed": count - len(wrong), "before_handlers": earlier,
            "while_downloading": loading, "slowest": round(slowest, 3), "wrong": wrong}


def main():
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 200
    seed = int(sys.argv[2]) if len(sys.argv) > 2 else 1
    print(json.dumps(torture(count, seed)))


if __name__ == "__main__":
    main()
