# SPDX-License-Identifier: Apache-2.0
"""A month of the daemon's clock, tick by tick. Runs inside the lab:

    python3 lab/sandbox.py --out build/torture -- /usr/bin/python3 -m lab.torture.month [TICKS]

A tick is the half minute after which the daemon does its periodic work; a month has 86,400. A report
that the platform never takes comes back on each of them. As soon as the platform has recorded one,
the clock is stepped on by the next half minute. Between the steps the clock, and with it every pause
and time limit of the daemon, runs RATE times as fast. Day by day the daemon leads its usual life:
version checks, an agent that falls silent and is started again, a changed setting, queries, a
connection that the platform closes; and at the beginning a platform that refuses its registration."""
import sys
import threading

from lab.device import ENROLLED, Device
from lab.platform import Answer, Platform
from lab.torture.load import figures, tell

MONTH, DAY = 86_400, 2_880  # ticks
TICK = 30  # seconds
RATE = 50
LATE = 0.5  # seconds of ours after which a tick is not waited for any longer
MOST_LATE = 100
REFUSALS = 8  # of the registration
REFUSED = Answer({"code": 500})
REPORT = "method=gw.boa.report&month=1"
CHECKS, REGISTRATIONS = "GET /v1/res/upgrade/apps/*", "GET /v1/devices/*"


class Month:
    def __init__(self):
        self.platform, self.device = Platform(), Device()
        self.ticks = self.clock = self.late = self.starts = 0
        self.seen, self.silent = threading.Event(), False
        self.told = {"checks": 0, "registrations": 0, "queries": 0, "settings": 0}

    def begin(self):
        platform, device = self.platform, self.device
        platform.cloud.device.active = True
        device.reset(settings=ENROLLED | {"loglevel": 8}, agents=("cloudae",))
        device.cloudae.behave(keepalive=0)  # the lab sends its signs of life
        platform.api.answer("PUT /v1/devices/*", self.take)
        platform.api.answer(REGISTRATIONS, REFUSED, times=REFUSALS)
        device.shift_time(0, RATE)
        device.start(faketime=True)
        device.query_all(REPORT, timeout=0.1)
        while not self.ticks:  # until it is registered
            self.step()
        self.ticks, self.late, self.starts = 1, 0, len(device.cloudae.starts())

    def take(self, request):
        """Refuses the report, and so sees a tick."""
        if "method" not in request.query:
            return None
        self.ticks += 1
        self.seen.set()
        return REFUSED

    def step(self):
        self.seen.clear()
        self.clock += TICK
        self.device.shift_time(self.clock, RATE)
        if not self.seen.wait(LATE):
            self.late += 1
            assert self.late < MOST_LATE, f"the ticks end after {self.ticks}"

    def live(self, tick):
        """What happens around the daemon at this tick of a day."""
        device, told = self.device, self.told
        if tick == DAY // 2:
            self.silent = True
        if self.silent and len(device.cloudae.starts()) > self.starts:
            self.starts, self.silent = len(device.cloudae.starts()), False
        if tick % 4 == 0 and not self.silent:
            device.datagram(b"keepcloudae")
        if tick % 100 == 0:
            told["queries"] += device.plugins()["pluginmgr"]["pluginVersion"] != ""
        if tick == DAY // 3:
            told["settings"] += device.set(id80035=f"day-{self.ticks}")["code"] == 0
        if tick == DAY // 4:
            self.platform.api.drop()

    def count_requests(self):
        self.told["checks"] += len(self.platform.requests(CHECKS))
        self.told["registrations"] += len(self.platform.requests(REGISTRATIONS))
        self.platform.journal.clear()


def month(wanted):
    one = Month()
    one.begin()
    samples = [figures(one.device)]
    first_start, seen = one.starts, 0
    while one.ticks < wanted:
        for tick in range(seen + 1, one.ticks + 1):
            one.live(tick % DAY)
            if tick % min(DAY, wanted // 4) == 0 and not one.silent:
                one.count_requests()
                samples.append(figures(one.device))
        seen = one.ticks
        one.step()
    one.count_requests()
    report = {"runs": wanted, "passed": one.ticks, "days": round(one.clock / 86_400, 1),
              "late": one.late, "starts_of_the_agent": one.starts - first_start}
    return one.device, report | one.told | {"wrong": []}, samples


if __name__ == "__main__":
    tell(month, int(sys.argv[1]) if len(sys.argv) > 1 else MONTH)
