# SPDX-License-Identifier: Apache-2.0
"""A device behind a bad line: an upgrade while every fifth packet is lost, then a line that is as
good as cut, then a good one. Runs inside the lab:

    python3 lab/sandbox.py --out build/torture -- /usr/bin/python3 -m lab.torture.link [COUNT [SEED]]

On the bad line the device registers and is upgraded in the end; on the cut one its cloud queries end
with the codes of a name, a connection, a session or an answer that did not come; on the good one the
next query succeeds at once. Local queries are answered all the while."""
import json
import sys
import threading
import time

from lab.device import Device, wait_until
from lab.link import Link
from lab.package import build
from lab.platform import Platform

NAME, STATUS, LOCAL = "cloud_phone", 80002, 80005
WAITING, FAILED, DONE, NOT_OFFERED = 0, 3, 7, 10
DOCUMENTED = {12, 13, 14, 22}
BAD, CUT = 0.2, 0.99  # share of packets lost
# Seconds. A local query waits for the cloud request under way, whose parts have limits of their own.
PATIENCE, LONGEST_ANSWER, AT_ONCE = 280, 60, 2


def keep_asking(device, over, waits):
    """Local queries, one after the other, once the control port is there; the seconds that each
    waited, None without an answer."""
    while not over.wait(0.2):
        if not waits and not device.is_ready():
            continue
        began = time.monotonic()
        answered = device.get(LOCAL, timeout=2 * LONGEST_ANSWER)
        waits.append(time.monotonic() - began if answered else None)


def upgraded(device):
    """Whether it is done; asks for it, after a failure with a new check before."""
    status = device.plugins()[NAME]["status"]
    if status in (NOT_OFFERED, FAILED):
        device.get(80025, timeout=PATIENCE)
    if status == WAITING:
        device.action(pluginName=NAME, pluginAction="update", timeout=LONGEST_ANSWER)
    return status == DONE


def cloud_query(device):
    """(code, seconds) of a query that goes to the cloud."""
    began = time.monotonic()
    reply = device.get(STATUS, timeout=2 * LONGEST_ANSWER)
    return reply and reply["code"], time.monotonic() - began


def through(device, platform, link, figures):
    """The three lines; the first thing that goes wrong is an AssertionError."""
    began = time.monotonic()
    child = device.start(ready=False)
    wait_until(lambda: platform.cloud.device.bound, PATIENCE, "the registration")
    figures["registered"] = round(time.monotonic() - began)
    wait_until(device.is_ready, PATIENCE, "the control port")
    wait_until(lambda: upgraded(device), PATIENCE, "the upgrade", 1)
    figures["upgraded"] = round(time.monotonic() - began)
    link.loss = CUT
    for _ in range(2):
        code, _took = cloud_query(device)
        assert code in DOCUMENTED, f"code {code} on the cut line"
        figures["codes"].append(code)
    link.loss = link.delay = 0
    code, took = cloud_query(device)
    assert code == 0 and took < AT_ONCE, f"code {code} after {took:.1f} s on the good line"
    assert child.poll() is None and device.pid() == child.pid, "another daemon"


def once(device, platform, seed, delay, conn_timeout):
    """One device's life; its figures, `wrong` None or what went wrong."""
    figures, waits, over = {"seed": seed, "codes": [], "wrong": None}, [], threading.Event()
    device.reset(settings={"active_token": "token-of-the-owner", "cloudserver": "on",
                           "conn_timeout": conn_timeout}, agents=())
    platform.cloud.offer(build(NAME, "1.1.0"))
    link = Link(BAD, delay, seed)
    asker = threading.Thread(target=keep_asking, args=(device, over, waits))
    try:
        asker.start()
        through(device, platform, link, figures)
    except AssertionError as failure:
        figures["wrong"] = str(failure)
    over.set()
    asker.join()
    link.close()
    slowest = max((one or PATIENCE for one in waits), default=PATIENCE)
    if slowest > LONGEST_ANSWER:
        figures["wrong"] = figures["wrong"] or "a local query was not answered in time"
    return figures | {"packets": link.sent, "lost": link.lost, "local": len(waits),
                      "slowest": round(slowest, 1)}


def torture(count, seed, delay=0.5, conn_timeout=15):
    platform, device = Platform(), Device()
    results = []
    for number in range(count):
        platform.reset()
        results.append(once(device, platform, seed + number, delay, conn_timeout))
    device.kill_all()
    wrong = [one for one in results if one["wrong"]]
    figures = {name: max(one.get(name, PATIENCE) for one in results)
               for name in ("registered", "upgraded", "slowest")}
    return {"runs": count, "passed": count - len(wrong), "wrong": wrong, **figures, "each": results}


def main():
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 3
    seed = int(sys.argv[2]) if len(sys.argv) > 2 else 1
    print(json.dumps(torture(count, seed)))


if __name__ == "__main__":
    main()
