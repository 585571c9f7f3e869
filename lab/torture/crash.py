# SPDX-License-Identifier: Apache-2.0
"""Every crash point of the daemon's writing jobs. Runs inside the lab:

    python3 lab/sandbox.py --out build/torture -- \\
        /usr/bin/python3 -m lab.torture.crash SCENARIO [--share 0/1]

SCENARIO is settings, settings-shorter, settings-new, rotation or upgrade (download, install and the
version list in one); --count lists its calls. A first run counts the side-effecting calls; then
each is a run of its own, in which everything dies right before the call (kill), the call fails or
takes half (an errno name, half), or only the program that makes it dies (end). After each the files
must hold the old or the new content, the daemon must work, the next try succeed and end with the
very files of a run without a fault, no command have been run that is not run otherwise, and nothing
be left open."""
import argparse
import json
import os
import re
import select
import socket
import subprocess
import sys
import time

from lab.device import (CONTROL_PORT, DEBUG_LOG, ENROLLED, HEADER, INI, LAB, PID_FILE, VERSION_LIST,
                        NOT_OFFERED, Device, read_text, wait_until)
from lab.package import build
from lab.platform import Platform

JOURNAL = LAB + "calls.json"
LISTED = ("/tmp", "/var/config/cloud", "/var/run", "/var/tmp", "/var/bin", "/var/lib",
          "/var/log/versions")
VERSIONS = "/var/log/versions/cloud"
NAME, NEW, NEXT = "cloud_phone", "1.1.0", "1.2.0"
RESTARTED = 7
ENDED = (3, 6, RESTARTED, 9, 10, 11, 12, 13)  # states that an upgrade stays in
PASTIMES = ("7", "35", "230")  # calls of an idle thread: poll, nanosleep, clock_nanosleep
QUESTION = "method=gw.config.get&id=80037"

ERRORS = {name: errors for names, errors in (
    ("open openat openat2 creat", ("ENOSPC", "EMFILE")),
    ("write pwrite writev", ("ENOSPC", "EIO", "EINTR", "half")),
    ("rename renameat renameat2", ("ENOSPC", "EIO")), ("fsync", ("EIO", "ENOSPC")),
    ("fallocate mkdir mkdirat link symlink", ("ENOSPC",)),
    ("clone clone3 fork vfork", ("EAGAIN", "ENOMEM")), ("execve execveat", ("ENOMEM",)),
    ("sendto sendmsg sendmmsg", ("ENOMEM",)), ("connect", ("EINTR", "ENOMEM")))
    for name in names.split()}
OTHERWISE = ("EIO",)


def send(device, text):
    """Asks without waiting for the answer, which may never come."""
    device.query_all(text, timeout=0.001)


def meaning(text):
    """Empty lines at the end say nothing; a rewrite in place may leave some for a moment."""
    return text.rstrip("\n")


def snapshot():
    """{path: content} of the folders that nothing may be left in. A program of the next version
    counts as the new one."""
    found = {}
    for top in LISTED:
        for folder, folders, files in os.walk(top):
            found |= dict.fromkeys((os.path.join(folder, name) for name in folders))
            found |= {os.path.join(folder, name): "" for name in files}
    return {path.replace(NEXT, NEW): content_of(path).replace(NEXT, NEW) for path in found}


def content_of(path):
    """Of a regular file that does not change from run to run."""
    return meaning(read_text(path)) if os.path.isfile(path) and path != PID_FILE else ""


def open_files(pid):
    """What the daemon holds open, sockets left out: its connections come and go."""
    folder, found = f"/proc/{pid}/fd", []
    for one in os.listdir(folder):
        try:
            found.append(os.readlink(f"{folder}/{one}"))
        except OSError:
            pass  # closed meanwhile
    return sorted(path for path in found if not path.startswith("socket:"))


def journal():
    lines = read_text(JOURNAL).splitlines()
    return [json.loads(line) for line in lines if line.endswith("}")]


def commands(calls):
    return {call["target"] for call in calls if call["call"].startswith("execve")}


class Traced:
    """The daemon under the tracer, for a with block."""

    def __init__(self, pid, point=None, action=None):
        goal = [point["label"], str(point["number"]), action] if point else []
        self.patience = 0.5 if point else LIMIT  # with an answer that a fault may have cost
        self.process = subprocess.Popen(
            [sys.executable, "-m", "lab.torture.tracer", str(pid), JOURNAL, *goal],
            stdout=subprocess.PIPE, text=True)
        assert self.process.stdout.readline() == "ready\n", "the tracer did not attach"

    def over(self):
        """Whether everything traced is dead."""
        if not select.select([self.process.stdout], [], [], 0)[0]:
            return False
        assert self.process.wait() == 0, "the tracer failed"
        return True

    def ask(self, text):
        """The answer to a query, None when it does not come in time or everything traced is dead."""
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
            one.sendto(HEADER.pack(b"", 1, 0x7F000001, 1, 0, 0, 0) + text.encode(), CONTROL_PORT)
            ready = select.select([one, self.process.stdout], [], [], self.patience)[0]
            return one.recv(65536)[HEADER.size:] if one in ready else None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        self.process.stdout.close()


def whole_lines(path):
    """Of a log and its older copies. A torn line shows as a stamp that does not begin a line, or as
    an end without a line end."""
    for copy in (path, path + ".1", path + ".bak"):
        text = read_text(copy)
        torn = [line for line in text.splitlines() if STAMP.search(line, 1)]
        assert not torn, f"{copy} has torn lines: {torn[:2]}"
        assert not text or text.endswith("\n"), f"{copy} ends in the middle of a line"


STAMP = re.compile(r"\[\d\d/\d\d \d\d:\d\d:\d\d\.\d{6}\]")
FILLER = "[01/01 00:00:00.000000] " + "x" * 103
LOG_LIMIT = 512 * 1024


def start(device):
    """Returns when the control thread has nothing more to do: a call of the start, or what follows
    an answer, would else be taken for one of the job."""
    device.start()
    tasks = f"/proc/{device.pid()}/task/"
    control = sorted(map(int, os.listdir(tasks)))[1]
    wait_until(lambda: read_text(f"{tasks}{control}/syscall").split(" ")[0] in PASTIMES, 10, "its rest")


class Settings:
    """One change of a setting, which rewrites the settings file in place."""
    files = (INI,)
    besides = re.compile("(?!)")  # commands that a fault may bring about
    old, new = "on", "switched-off"  # the file grows

    def prepare(self, device, platform):
        device.reset(settings={"cloudserver": "ums", "quorvel_service": self.old, "other": "kept",
                               "loglevel": 3}, device_id=None, agents=())
        start(device)

    def points(self, calls):
        """All up to the last answer: whether what follows it is seen is a matter of luck."""
        return calls[:max(at for at, call in enumerate(calls, 1) if call["call"] == "sendto")]

    def trigger(self, device):
        send(device, f"method=gw.config.set&id80035={self.new}")

    def is_done(self, traced):
        """It serves one request after the other."""
        return traced.ask(QUESTION) is not None

    def retry(self, device, platform, new):
        assert device.set(id80035=self.new) == {"result": "ok", "code": 0}
        wait_until(lambda: meaning(read_text(INI)) == meaning(new[INI]), 5, "the second try")


class ShorterSettings(Settings):
    old, new = "switched-off", "on"


class NewSetting(Settings):
    old, new = None, "on"  # a line more


class Rotation:
    """One log line that fills the debug log up."""
    files, besides = (INI, VERSION_LIST), Settings.besides

    def prepare(self, device, platform):
        device.reset(settings={"cloudserver": "ums", "loglevel": 8}, device_id=None, agents=())
        start(device)
        self.fill(device)

    def fill(self, device):
        room = LOG_LIMIT - 1 - os.path.getsize(DEBUG_LOG)
        self.lines = room // (len(FILLER) + 1)
        with open(DEBUG_LOG, "a", encoding="latin-1") as log:
            log.write((FILLER + "\n") * self.lines)

    points = Settings.points

    def trigger(self, device):
        send(device, QUESTION)
        send(device, QUESTION)

    is_done = Settings.is_done

    def retry(self, device, platform, new):
        if not os.path.getsize(DEBUG_LOG) < LOG_LIMIT // 2:
            self.trigger(device)
        wait_until(lambda: os.path.getsize(DEBUG_LOG) < LOG_LIMIT, 5, "the rotation")
        kept = sum(read_text("/var/log/" + name).count(FILLER) for name in os.listdir("/var/log"))
        assert kept == self.lines, f"{kept} of {self.lines} old lines are left"


class Upgrade:
    """From the user's request to the restarted plug-in: download, install, version list."""
    files = (INI, VERSION_LIST, VERSIONS)
    # The broken package goes, the install script is written anew; a broken install.sh of the package
    # is tried by the shell itself; the plug-in is restarted.
    besides = re.compile("(sh -c )?(rm -f /tmp/dl_cloud/|chmod [+]x /var/run/cloud_install.sh|"
                         f"ash ./install.sh|killall -9 {NAME}|/var/run/{NAME})")

    def prepare(self, device, platform):
        platform.reset()
        platform.cloud.device.active = True
        device.reset(settings=ENROLLED | {"loglevel": 3}, agents=())
        self.offer(platform, NEW)
        device.start()
        platform.wait_request(lambda one: "versions" in one.query)  # the last of the start's reports
        wait_until(lambda: device.plugins()["pluginmgr"]["status"] == NOT_OFFERED, 20, "the check")

    def offer(self, platform, version):
        program = b"#!/bin/sh\nexit 0\n"
        platform.cloud.offer(build(NAME, version, files={"/var/run/" + NAME: program}))

    def offered(self, device, version):
        wait_until(lambda: device.plugins()[NAME]["pluginNewVersion"] == version, 20, "the offer")

    def points(self, calls):
        """Not the answers to our own looking on, nor the restart of the plug-in afterwards."""
        most = {"1": 1, "1 log": 2, "2": 2}
        return [call for call in calls if call["label"].startswith(("2.1", "2.2"))
                or call["number"] <= most.get(call["label"], 0)]

    def trigger(self, device):
        send(device, f"method=gw.app.action&pluginName={NAME}&pluginAction=update")

    def is_done(self, traced):
        reply = traced.ask("method=gw.config.get&id=80005")
        states = {one["pluginName"]: one["status"] for one in json.loads(reply or "[]")}
        return states.get(NAME) in ENDED

    def retry(self, device, platform, new):
        wanted = {path: new[path] for path in (VERSION_LIST, VERSIONS)}
        version = NEW
        if device.plugins()[NAME]["pluginVersion"] == NEW and not self.are_there(wanted):
            # Installed, but the lists could not be written: the next upgrade writes them.
            wanted = {path: text.replace(NEW, NEXT) for path, text in wanted.items()}
            version = NEXT
            self.offer(platform, NEXT)
        device.get(80025)
        if not self.are_there(wanted):
            self.offered(device, version)
            self.trigger(device)
            wait_until(lambda: device.plugins()[NAME]["pluginVersion"] == version, 30, "the upgrade")
            device.wait_status(NAME, RESTARTED)
        wait_until(lambda: self.are_there(wanted), 5, "the version lists")

    def are_there(self, wanted):
        return all(read_text(path) == text for path, text in wanted.items())


SCENARIOS = {"settings": Settings, "settings-shorter": ShorterSettings, "settings-new": NewSetting,
             "rotation": Rotation, "upgrade": Upgrade}
LIMIT = 60  # seconds that a job may take under the tracer


def drive(scenario, device, traced):
    """Triggers the job and waits for its end, or for everybody's."""
    deadline = time.monotonic() + LIMIT
    scenario.trigger(device)
    while not traced.over():
        if scenario.is_done(traced):
            return
        assert time.monotonic() < deadline, "the job hangs"
        time.sleep(0.05)


def contents(scenario):
    return {path: read_text(path) for path in scenario.files}


def count(scenario, device, platform):
    """(points, what is known) of a run without a fault."""
    scenario.prepare(device, platform)
    old = contents(scenario)
    with Traced(device.pid()) as traced:
        drive(scenario, device, traced)
        calls = journal()
    known = {"old": old, "new": contents(scenario), "files": snapshot(), "commands": commands(calls),
             "open": open_files(device.pid())}
    return scenario.points(calls), known


def strike(scenario, device, point, action):
    """The daemon at work until a fault, and the journal."""
    with Traced(device.pid(), point, action) as traced:
        drive(scenario, device, traced)
        hit = wait_until(lambda: [one for one in journal() if one["hit"]], 10, "the point")[0]
        assert hit["call"] == point["call"], f"another call is at this point: {hit}"
        if action == "kill":
            wait_until(traced.over, 10, "the end of the daemon")
        assert action == "kill" or not traced.over(), "the daemon ended"
        return journal()


def work_again(scenario, device, platform, action, new):
    """The next try, after a restart when all were killed."""
    if action == "kill":
        device.kill_all()
        device.start()
    scenario.retry(device, platform, new)


def look_over(device, known):
    """What may be left of a fault after the next try: nothing."""
    differs = dict(snapshot().items() ^ known["files"].items())
    assert not differs, f"other files than without a fault: {differs!r:.300}"
    wait_until(lambda: open_files(device.pid()) == known["open"], 5,
               f"an end of {open_files(device.pid())}")
    for log in (DEBUG_LOG, "/var/log/plugin_err.log"):
        whole_lines(log)


def check(scenario, device, platform, point, action, known):
    """None, or what is wrong after a fault at this point."""
    try:
        scenario.prepare(device, platform)
        pid = device.pid()
        calls = strike(scenario, device, point, action)
        foreign = {one for one in commands(calls) - known["commands"]
                   if not scenario.besides.match(one)}
        assert not foreign, f"foreign commands: {foreign}"
        for path, text in contents(scenario).items():
            assert meaning(text) in (meaning(known["old"][path]), meaning(known["new"][path])), (
                f"{path} is neither old nor new: {text!r:.300}")
        assert action == "kill" or device.daemons() == [pid], "the daemon is another one"
        work_again(scenario, device, platform, action, known["new"])
        look_over(device, known)
    except (AssertionError, OSError, ValueError, KeyError, subprocess.SubprocessError) as wrong:
        return f"{type(wrong).__name__}: {wrong}"
    return None


def runs_of(points, errors=None):
    """(point, action) of every run, with all errors or the first few of each call; a program that the
    daemon runs ends there as well, by itself. What fails within a package's own install.sh is left
    to it: the daemon believes the result that it states."""
    script = "./install.sh"
    scripts = tuple(point["label"] for point in points if point["target"].startswith(script))
    for point in points:
        yield point, "kill"
        if not point["label"].startswith(scripts) or point["target"].startswith(script):
            ends = ("end",) if point["label"].count(".") > 1 else ()
            for name in ERRORS.get(point["call"], OTHERWISE)[:errors] + ends:
                yield point, name


def torture(name, device, platform, choose=lambda at, point, action: True, errors=None, points=None):
    """A list of {"label", "number", "call", "target", "action", "wrong"} of every run, or of those
    that choose() takes; at is the number of the run, from 0."""
    scenario = SCENARIOS[name]()
    found, known = count(scenario, device, platform)
    results = []
    for at, (point, action) in enumerate(runs_of(points or found, errors)):
        if choose(at, point, action):
            wrong = check(scenario, device, platform, point, action, known)
            results.append(point | {"action": action, "wrong": wrong})
            print(json.dumps(results[-1]), flush=True)
    device.kill_all()
    return results


def main():
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("scenario", choices=SCENARIOS)
    parser.add_argument("--share", default="0/1", help="I/N: the I-th of N shares")
    parser.add_argument("--points", help="file of an earlier count")
    parser.add_argument("--count", action="store_true", help="only list the calls")
    chosen = parser.parse_args()
    device, platform = Device(), Platform()
    if chosen.count:
        for point in count(SCENARIOS[chosen.scenario](), device, platform)[0]:
            print(json.dumps(point))
        device.kill_all()
        return
    points = [json.loads(line) for line in read_text(chosen.points or "").splitlines()] or None
    share, shares = map(int, chosen.share.split("/"))
    torture(chosen.scenario, device, platform, lambda at, *_: at % shares == share, points=points)


if __name__ == "__main__":
    main()
