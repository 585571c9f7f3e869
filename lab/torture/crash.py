# SPDX-License-Identifier: Apache-2.0
"""Every crash point of the daemon's writing jobs. Runs inside the lab:

    python3 lab/sandbox.py --out build/torture -- \\
        /usr/bin/python3 -m lab.torture.crash SCENARIO [--modes kill,error] [--share 0/1] [--every 1]

SCENARIO is settings, settings-shorter, settings-new, rotation or upgrade (download, install and the
version list in one); --count lists its calls. A first
run counts the side-effecting calls; then each is a run of its own, in which everything dies right
before the call (kill) or the call fails (error). After each the files must hold the old or the new
content, the daemon must work, the next try succeed, and nothing be left that a run without a fault
does not leave."""
import argparse
import json
import os
import re
import subprocess
import sys
import time

from lab.device import (DEBUG_LOG, ENROLLED, INI, LAB, VERSION_LIST, Device, read_text, wait_until)
from lab.package import build
from lab.platform import Platform

DRAFT = "/tmp/tmpconfig"  # of the settings file, its name gone again before anything is in it
JOURNAL = LAB + "calls.json"
LISTED = ("/tmp", "/var/config/cloud", "/var/run", "/var/tmp", "/var/bin", "/var/lib")
NAME, NEW, NEXT = "cloud_phone", "1.1.0", "1.2.0"
IDLE, RESTARTED, CHECK_FAILED = 0, 7, 10
ENDED = (3, 6, RESTARTED, 9, 10, 11, 12, 13)  # states that an upgrade stays in
OPEN_ERRORS, WRITE_ERRORS = ("ENOSPC", "EMFILE"), ("ENOSPC", "EIO", "EINTR")
ERRORS = {"open": OPEN_ERRORS, "openat": OPEN_ERRORS, "creat": OPEN_ERRORS,
          "write": WRITE_ERRORS, "pwrite": WRITE_ERRORS, "writev": WRITE_ERRORS,
          "sendfile": ("EIO",), "truncate": ("EIO",), "ftruncate": ("EIO",),
          "fallocate": ("ENOSPC",), "rename": ("ENOSPC", "EIO"), "renameat": ("ENOSPC",),
          "renameat2": ("ENOSPC",), "unlink": ("EIO",), "unlinkat": ("EIO",), "rmdir": ("EIO",),
          "mkdir": ("ENOSPC",), "mkdirat": ("ENOSPC",), "link": ("ENOSPC",),
          "symlink": ("ENOSPC",), "chmod": ("EIO",), "fchmod": ("EIO",), "fchmodat": ("EIO",),
          "fsync": ("EIO", "ENOSPC"), "fdatasync": ("EIO",), "clone": ("EAGAIN", "ENOMEM"),
          "fork": ("ENOMEM",), "vfork": ("ENOMEM",), "clone3": ("EAGAIN", "ENOMEM"),
          "execve": ("ENOMEM",), "sendto": ("ENOMEM",), "sendmsg": ("ENOMEM",),
          "sendmmsg": ("ENOMEM",), "connect": ("EINTR", "ENOMEM")}


def send(device, text):
    """Asks without waiting for the answer, which may never come."""
    device.query_all(text, timeout=0.001)


def listing():
    """What lies in the folders that nothing may be left in."""
    found = set()
    for top in LISTED:
        for folder, folders, files in os.walk(top):
            found |= {os.path.join(folder, name) for name in folders + files}
    return found


def journal():
    lines = read_text(JOURNAL).splitlines()
    return [json.loads(line) for line in lines if line.endswith("}")]


def programs(calls):
    """What was run, the device's own commands left out: its shell finds them in several ways."""
    return {call["target"] for call in calls if call["call"] == "execve"
            and not os.path.exists("/bin/" + os.path.basename(call["target"]))}


class Traced:
    """The daemon under the tracer, for a with block."""

    def __init__(self, pid, point=None, action=None):
        goal = [point["label"], str(point["number"]), action] if point else []
        self.process = subprocess.Popen(
            [sys.executable, "-m", "lab.torture.tracer", str(pid), JOURNAL, *goal],
            stdout=subprocess.PIPE, text=True)
        assert self.process.stdout.readline() == "ready\n", "the tracer did not attach"

    def over(self):
        """Whether everything traced is dead."""
        return self.process.poll() is not None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()


def whole_lines(path):
    """A torn line shows as a stamp that does not begin a line, or as an end without a line end."""
    text = read_text(path)
    torn = [line for line in text.splitlines() if STAMP.search(line, 1)]
    assert not torn, f"{path} has torn lines: {torn[:2]}"
    assert not text or text.endswith("\n"), f"{path} ends in the middle of a line"


STAMP = re.compile(r"\[\d\d/\d\d \d\d:\d\d:\d\d\.\d{6}\]")
FILLER = "[01/01 00:00:00.000000] " + "x" * 103
LOG_LIMIT = 512 * 1024


class Settings:
    """One change of a setting, which rewrites the settings file in place."""
    files = (INI,)
    old, new = "on", "switched-off"  # the file grows

    def prepare(self, device, platform):
        device.reset(settings={"cloudserver": "ums", "quorvel_service": self.old, "other": "kept",
                               "loglevel": 3}, device_id=None, agents=())
        device.start()

    def belongs(self, point):
        return True

    def trigger(self, device):
        send(device, f"method=gw.config.set&id80035={self.new}")

    def is_done(self, device, since):
        return device.query("method=gw.config.get&id=80037", timeout=0.3) is not None

    def retry(self, device, platform, new):
        assert device.set(id80035=self.new) == {"result": "ok", "code": 0}
        wait_until(lambda: meaning(read_text(INI)) == meaning(new[INI]), 5, "the second try")


class ShorterSettings(Settings):
    old, new = "switched-off", "on"


class NewSetting(Settings):
    old, new = None, "on"  # a line more


class Rotation:
    """One log line that fills the debug log up."""
    files = (INI, VERSION_LIST)

    def prepare(self, device, platform):
        device.reset(settings={"cloudserver": "ums", "loglevel": 8}, device_id=None, agents=())
        device.start()
        self.fill(device)

    def fill(self, device):
        time.sleep(0.2)
        room = LOG_LIMIT - 1 - os.path.getsize(DEBUG_LOG)
        with open(DEBUG_LOG, "a", encoding="latin-1") as log:
            log.write((FILLER + "\n") * (room // (len(FILLER) + 1)))

    def belongs(self, point):
        return True

    def trigger(self, device):
        send(device, "method=gw.config.get&id=80037")
        send(device, "method=gw.config.get&id=80038")

    def is_done(self, device, since):
        return device.query("method=gw.config.get&id=80037", timeout=0.3) is not None

    def retry(self, device, platform, new):
        if not os.path.getsize(DEBUG_LOG) < LOG_LIMIT // 2:
            self.trigger(device)
        wait_until(lambda: os.path.getsize(DEBUG_LOG) < LOG_LIMIT, 5, "the rotation")
        kept = sum(read_text("/var/log/" + name).count(FILLER) for name in os.listdir("/var/log"))
        assert kept >= 3500, f"{kept} old lines are left in all"


class Upgrade:
    """From the user's request to the restarted plug-in: download, install, version list."""
    files = (INI, VERSION_LIST)

    def prepare(self, device, platform):
        platform.reset()
        platform.cloud.device.active = True
        device.reset(settings=ENROLLED | {"loglevel": 3}, agents=())
        self.offer(platform, NEW)
        device.start()
        device.get(80025)
        self.offered(device, NEW)

    def offer(self, platform, version):
        program = b"#!/bin/sh\nexit 0\n"
        platform.cloud.offer(build(NAME, version, files={"/var/run/" + NAME: program}))

    def offered(self, device, version):
        wait_until(lambda: device.plugins()[NAME]["pluginNewVersion"] == version, 20, "the offer")

    def belongs(self, point):
        """Not the answers to our own looking on, nor the restart of the plug-in afterwards."""
        first = {"1": 3, "2": 2}.get(point["label"])
        return point["number"] <= first if first else point["label"].startswith(("2.1", "2.2"))

    def trigger(self, device):
        send(device, f"method=gw.app.action&pluginName={NAME}&pluginAction=update")

    def is_done(self, device, since):
        reply = device.query("method=gw.config.get&id=80005", timeout=0.4)
        status = {one["pluginName"]: one["status"] for one in reply.json()}[NAME] if reply else -1
        return status in ENDED or (status == IDLE and time.monotonic() - since > 3)

    def retry(self, device, platform, new):
        device.get(80025)
        wanted, entry = new[VERSION_LIST], device.plugins()[NAME]
        if entry["pluginVersion"] == NEW and read_text(VERSION_LIST) != wanted:
            # Installed, but the list could not be written: the next upgrade writes it.
            self.offer(platform, NEXT)
            wanted = wanted.replace(NEW, NEXT)
            device.get(80025)
        if read_text(VERSION_LIST) != wanted:
            version = NEXT if NEXT in wanted else NEW
            self.offered(device, version)
            self.trigger(device)
            wait_until(lambda: device.plugins()[NAME]["pluginVersion"] == version, 30, "the upgrade")
            device.wait_status(NAME, RESTARTED)
        wait_until(lambda: read_text(VERSION_LIST) == wanted, 5, "the version list")
        assert os.access("/var/run/" + NAME, os.X_OK), "the program is not installed"


SCENARIOS = {"settings": Settings, "settings-shorter": ShorterSettings, "settings-new": NewSetting,
             "rotation": Rotation, "upgrade": Upgrade}
LIMIT = 25  # seconds that a job may take under the tracer


def drive(scenario, device, traced):
    """Triggers the job and waits for its end, or for everybody's."""
    since = time.monotonic()
    scenario.trigger(device)
    while not traced.over():
        if scenario.is_done(device, since):
            time.sleep(0.1)  # what follows the answer
            return
        assert time.monotonic() - since < LIMIT, "the job hangs"
        time.sleep(0.05)


def contents(scenario):
    return {path: read_text(path) for path in scenario.files}


def meaning(text):
    """Empty lines at the end say nothing; a rewrite in place may leave some for a moment."""
    return text.rstrip("\n")


def count(scenario, device, platform):
    """(points, old contents, new contents, files left, programs run) of a run without a fault."""
    scenario.prepare(device, platform)
    old = contents(scenario)
    with Traced(device.pid()) as traced:
        drive(scenario, device, traced)
        calls = journal()
    points = [point for point in calls if scenario.belongs(point)]
    return points, old, contents(scenario), listing(), programs(calls)


def check(scenario, device, platform, point, action, known):
    """None, or what is wrong after a fault at this point."""
    old, new, files, usual = known
    try:
        scenario.prepare(device, platform)
        with Traced(device.pid(), point, action) as traced:
            drive(scenario, device, traced)
            calls = journal()
            if not any(one["hit"] for one in calls):
                return "not reached"
            died = traced.over()
        assert programs(calls) <= usual, f"foreign programs: {programs(calls) - usual}"
        for path, text in contents(scenario).items():
            assert meaning(text) in (meaning(old[path]), meaning(new[path])), (
                f"{path} is neither old nor new: {text!r:.300}")
        if action == "kill" or died:
            assert action == "kill", "the daemon ended"
            device.kill_all()
            device.start()
        else:
            assert device.daemons(), "the daemon is gone"
        try:
            scenario.retry(device, platform, new)
        except AssertionError as first:
            if action == "kill":
                raise
            device.kill_all()  # not mended by a second try; a restart has to do
            device.start()
            scenario.retry(device, platform, new)
            return f"passes after a restart only: {first}"
        left = {path.replace(NEXT, NEW) for path in listing()} - files
        if point["call"] == "unlink" and point["target"].startswith(DRAFT):
            left = {path for path in left if not path.startswith(DRAFT)}  # what was to be removed
        assert not left, f"left behind: {sorted(left)}"
        for log in (DEBUG_LOG, DEBUG_LOG + ".1", "/var/log/plugin_err.log"):
            whole_lines(log)
    except (AssertionError, OSError, ValueError, KeyError, subprocess.SubprocessError) as wrong:
        return f"{type(wrong).__name__}: {wrong}"
    return None


def runs_of(points, modes, errors=3):
    """(point, action) of every run. What fails within a package's own install.sh is left to it:
    the daemon believes the result that it states."""
    scripts = tuple(point["label"] for point in points if point["target"] == "./install.sh")
    for point in points:
        if "kill" in modes:
            yield point, "kill"
        within = point["label"].startswith(scripts) and point["target"] != "./install.sh"
        if "error" in modes and not within:
            for name in ERRORS[point["call"]][:errors]:
                yield point, name


def torture(name, device, platform, modes=("kill", "error"), part=(0, 1), every=1, errors=3,
            points=None, only=lambda point: True):
    """A list of {"label", "number", "call", "target", "action", "wrong", "at_first"} of every run.
    What goes wrong is tried once more, for a machine under load may be late; at_first tells."""
    scenario = SCENARIOS[name]()
    found, *known = count(scenario, device, platform)
    points = list(filter(only, points or found))
    results = []
    for point, action in list(runs_of(points, modes, errors))[part[0]::part[1] * every]:
        wrong = first = check(scenario, device, platform, point, action, known)
        if first:
            wrong = check(scenario, device, platform, point, action, known)
        results.append(point | {"action": action, "wrong": wrong, "at_first": first})
        print(json.dumps(results[-1]), flush=True)
    device.kill_all()
    return results


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("scenario", choices=SCENARIOS)
    parser.add_argument("--modes", default="kill,error")
    parser.add_argument("--share", default="0/1", help="I/N: the I-th of N shares")
    parser.add_argument("--every", type=int, default=1)
    parser.add_argument("--points", help="file of an earlier count")
    parser.add_argument("--count", action="store_true", help="only list the calls")
    chosen = parser.parse_args()
    if chosen.count:
        scenario, device = SCENARIOS[chosen.scenario](), Device()
        for point in count(scenario, device, Platform())[0]:
            print(json.dumps(point))
        device.kill_all()
        return
    points = [json.loads(line) for line in read_text(chosen.points or "").splitlines()] or None
    torture(chosen.scenario, Device(), Platform(), chosen.modes.split(","), tuple(map(int, chosen.share.split("/"))),
            chosen.every, points=points)


if __name__ == "__main__":
    main()
