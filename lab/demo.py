#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""`./dev demo`: a device from power-on to its upgraded plug-ins and in its owner's hands, as a story
in two acts. Each line tells a thing that was observed on the wire, in the device's files, logs and
processes, or in what pluginctl says. Exit status 0 when all of it happened, else 1.

The daemon is the release build at its real paths; the platform, the name servers and the agents
are the lab's."""
import json
import os
import signal
import subprocess
import sys
import threading
import time

from lab import act_two
from lab.deployment import API_SERVER, DOWNLOAD_SERVER, VERSION
from lab.device import (DAEMON, ENVIRONMENT, FLASH, HOSTS, VERSION_LIST, Agent, Device,
                        agent_program, read_text)
from lab.package import build, sign
from lab.platform import DEVICE_ID, Answer, Platform
from lab.story import Story

CONTROL = "/lab-build/pluginctl"
NEXT_DAEMON, NEXT_VERSION = "/lab-build/lab/pluginmgr_next", "1.2.11"
PHONE = "cloud_phone"
DOWNLOADS = "/tmp/dl_cloud/"
KEPT = "/run/lab/kept"
OUT = "/lab-out"
DEVICE = "/v1/devices/" + DEVICE_ID
METRIC = "POST /v1/services/cloudwatch/metrics"
CHECK_CYCLE, SILENCE = 600, 360   # seconds: shortest check cycle; patience with a silent agent
NEW_VERSIONS = 0x3000             # message of the daemon to cloudae
# Two name servers, so that the journal of queries tells the resolvers apart.
SYSTEM_SERVER, OWN_SERVER = "127.0.0.1", "127.0.0.2"
RESOLVERS = {SYSTEM_SERVER: "the system resolver", OWN_SERVER: "the daemon's own resolver"}
SETTINGS = {"cloudserver": "on", "active_token": "token-of-the-owner",
            "dns1": OWN_SERVER, "dns2": None, "dns3": None}
THROTTLED = {"drip": 64 << 10, "drip_pause": 0.075}  # about 850 KB a second


class Scene:
    """The actors, and short words for what is looked at again and again."""

    def __init__(self):
        self.platform, self.device, self.phone = Platform(), Device(), Agent(PHONE)
        self.cloud, self.dns = self.platform.cloud, self.platform.dns
        self.story = Story("plugin_debug.log, and requests.txt for what the platform was asked")
        self.see, self.say = self.story.see, self.story.say
        self.shifted = 0

    def request(self, pattern):
        """The last request of that kind."""
        return self.platform.requests(pattern)[-1]

    def pluginctl(self, *words):
        return self.story.run(CONTROL, *words)

    def see_row(self, claim, table, name, wanted):
        """A plug-in's line in a table of pluginctl, without its name and size."""
        self.see(claim, lambda: [" ".join(line.split()) for line in table.splitlines()],
                 lambda rows: any(row.startswith(f"{name} {wanted}") for row in rows),
                 lambda _: wanted)

    def status(self, name):
        return self.device.plugins()[name]["status"]

    def listed(self, name):
        """A plug-in's version in the version list file."""
        entries = json.loads(read_text(VERSION_LIST))
        return next(one["version"] for one in entries if one["app_name"] == name)

    def see_report(self, name, version, result, since):
        """The upgrade report that the platform received after the first `since`."""
        self.see("report received", lambda: self.cloud.device.upgrades[since:],
                 lambda bodies: any(f"app_name={name}&" in body and f"&to_version={version}&" in body
                                    and body.endswith("=" + result) for body in bodies),
                 lambda bodies: bodies[-1].partition("&")[2].replace("&", " "))

    def update(self, name, package):
        """The user's update with a copy kept of what arrives: (exit status, text, percents)."""
        keeper = threading.Thread(target=keep, args=(DOWNLOADS + package.file_name,), daemon=True)
        keeper.start()
        return self.pluginctl("update", name, "--watch")

    def later(self, seconds):
        self.shifted += seconds
        self.device.shift_time(self.shifted)

    def attempts(self, package, since=0):
        """Who fetched a package: protocol and user agent of each request."""
        return [f"{one.raw.split()[2].decode()}, {one.headers.get('user-agent', 'no user agent')}"
                for one in self.platform.requests("/packages/" + package.file_name, since)]


def keep(path):
    """Gives a download a second name, under which it stays when the device deletes it."""
    if os.path.exists(KEPT):
        os.unlink(KEPT)
    for _ in range(3000):
        try:
            return os.link(path, KEPT)
        except FileNotFoundError:
            time.sleep(0.01)


def kept():
    with open(KEPT, "rb") as file:
        return file.read()


def phone_package(version, **more):
    return build(PHONE, version, files={"/var/run/" + PHONE: agent_program(version)},
                 message=f"{PHONE} {version} is in place", **more)


def number(size):
    return f"{size:,} bytes"


def versions_text(message):
    """The versions that the daemon sent cloudae."""
    return ", ".join(" ".join(one.values()) for one in json.loads(message["text"]))


def first_line(request):
    return f"{request.line}: {request.status}"


# -- the chapters ------------------------------------------------------------------------------------


def boot(s):
    s.device.reset(SETTINGS, {"checkcycle": CHECK_CYCLE}, {PHONE: "1.0.0"})
    s.device.wget("gnu")
    s.phone.install("1.0.0")
    s.phone.behave(keepalive=0)
    subprocess.Popen(["/var/run/" + PHONE], env=ENVIRONMENT, start_new_session=True)
    s.see("no key, never activated", lambda: [s.device.setting(key) for key in
                                               ("device_key", "active_state")], [None, None],
          lambda _: "pluginmgr.ini holds the mode and the owner's token only")
    s.see("flash", lambda: read_text(FLASH)[1024:].partition("\0")[0], f"device_id={DEVICE_ID}")
    s.first = s.device.start(faketime=True, ready=False)
    s.see("the daemon runs", lambda: s.device.log_lines("Version " + VERSION),
          show=lambda lines: f"pid {s.device.pid()}, {lines[0][lines[0].index('Version'):]}")
    s.see("starts the cloud agent", lambda: s.device.cloudae.starts()[0]["version"], "1.0.30",
          lambda version: f"cloudae {version}, pid {s.device.cloudae.pid()}")
    s.see("the id from flash in use", lambda: s.request("POST *activate").path.split("/")[3],
          DEVICE_ID)


def connect(s):
    s.see("name asked for", lambda: next(one for one in s.dns.queries if one[1] == API_SERVER),
          lambda query: query[0] in RESOLVERS,
          lambda query: f"{API_SERVER} at {query[0]}, by {RESOLVERS[query[0]]}")
    s.see("address found", lambda: s.device.log_lines("IP address [")[0].partition("IP address")[2],
          lambda text: s.dns.names[API_SERVER][0] in text, lambda text: "IP address" + text)
    s.see("TLS", lambda: next(iter(s.platform.api._open)).cipher(),
          show=lambda cipher: f"{cipher[1]}, {cipher[0]}, port {s.platform.journal[0].port}")


def activate(s):
    s.see("signed request", lambda: s.request("POST *activate").query, lambda query: query["sign"],
          lambda query: f"device_mac {query['device_mac']}, timestamp {query['timestamp']}, "
                        f"sign {query['sign'][:12]}…")
    s.see("the platform checks it", lambda: s.cloud.verdicts[0].ok, True,
          lambda _: "the HMAC-SHA1 over MAC and timestamp is right")
    s.see("key kept", lambda: [s.device.setting(key) for key in ("active_state", "device_key")],
          ["true", s.cloud.device.key], lambda _: "active_state=true, device_key in pluginmgr.ini")


def register(s):
    record = s.cloud.device
    s.see("bound to its owner", lambda: record.bound and s.request(f"POST {DEVICE}/actions/bind"),
          show=lambda request: f"bind, answered {request.status}; owner {record.user}")
    s.see("record read", lambda: s.request("GET " + DEVICE), show=first_line)
    s.see("mode reported", lambda: record.reported["cloud_server"], "on")
    s.see("uptime reported", lambda: record.uptimes[0], float, lambda text: "deviceBoot, uptime=" + text)
    s.see("versions reported", lambda: record.reported["versions"],
          lambda text: {"pluginmgr:" + VERSION, PHONE + ":1.0.0"} <= set(text.split(",")))
    s.see("kept alive", lambda: [one.connection for one in s.platform.requests(DEVICE + "*")],
          lambda all: len(all) > 3 and set(all) == {1},
          lambda all: f"{len(all)} requests on one connection")
    s.see("ready", s.device.is_ready, show=lambda _: "control port 127.0.0.1:6907 is open")


def offer(s):
    s.phone_1 = phone_package("1.1.0", padding=3_000_000, slow=1)
    s.agent = build("cloudae", "1.0.31", files={"/var/run/cloudae": agent_program("1.0.31")})
    s.cloud.offer(s.agent)
    s.cloud.offer(s.phone_1)
    s.platform.dl.answer("GET /packages/" + s.phone_1.file_name, Answer(s.phone_1.data, **THROTTLED))
    s.say(f"The platform now has cloudae 1.0.31 and {PHONE} 1.1.0.")
    _status, text, _ = s.pluginctl("check")
    s.see_row("cloudae on offer", text, "cloudae", "1.0.30 1.0.31 newer version available")
    s.see_row("the plug-in on offer", text, PHONE, "1.0.0 1.1.0 newer version available")
    s.see("asked with the device's key", lambda: s.request("GET */upgrade/apps/" + PHONE),
          lambda request: request.status == 200 and "authorization" in request.headers, first_line)


def upgrade(s):
    package, before = s.phone_1, s.phone.starts()[-1]
    status, text, percents = s.update(PHONE, package)
    s.see("pluginctl is content", lambda: status, 0, lambda _: "exit status 0")
    s.see("the bar moved", lambda: sorted(set(percents)), lambda steps: len(steps) > 4,
          lambda steps: f"{len(steps)} steps, from {steps[0]} % to {steps[-1]} %")
    s.see("size", lambda: len(kept()), len(package.data),
          lambda size: f"{number(size)} arrived, as offered")
    s.see("signature", lambda: sign(kept(), package.version), package.signature,
          lambda text: f"{text}, as offered")
    s.see("install script run", lambda: [os.path.getsize("/tmp/up_cloud/up_stat"),
                                         read_text("/tmp/up_cloud/up_msg").strip()],
          [10, f"{PHONE} 1.1.0 is in place"], lambda seen: f"up_stat has 10 bytes; \"{seen[1]}\"")
    s.see_report(PHONE, "1.1.0", "ok", 0)
    s.see("plug-in restarted", lambda: s.phone.starts()[-1],
          lambda now: now["version"] == "1.1.0" and now["pid"] == s.phone.pid() != before["pid"],
          lambda now: f"{before['version']} with pid {before['pid']}, now {now['version']} "
                      f"with pid {now['pid']}")
    s.see("version list file", lambda: s.listed(PHONE), "1.1.0")
    s.see("cloudae was told", lambda: versions_text(s.device.cloudae.messages(NEW_VERSIONS)[-1]),
          lambda text: PHONE + " 1.1.0" in text)
    _status, text, _ = s.pluginctl("status")
    s.see_row("status shows it", text, PHONE, "1.1.0 - installed")


def flipped_byte(s):
    s.phone_2, since = phone_package("1.2.0", padding=200_000), len(s.cloud.device.upgrades)
    s.cloud.offer(s.phone_2)
    half = len(s.phone_2.data) // 2
    flipped = bytearray(s.phone_2.data)
    flipped[half] ^= 1
    s.cloud.files["/packages/" + s.phone_2.file_name] = bytes(flipped)
    s.say(f"{PHONE} 1.2.0 is on offer; byte {half:,} of the package is not what was signed.")
    status, _text, _ = s.update(PHONE, s.phone_2)
    s.see("it arrived in full", lambda: kept() == bytes(flipped), True,
          lambda _: f"{number(len(kept()))}; the size is right")
    s.see("refused", lambda: s.status(PHONE), 13, lambda code: f"status {code}: signature not match; "
                                                               f"pluginctl ended with {status}")
    s.see_report(PHONE, "1.2.0", "signature not match", since)
    s.see("deleted", lambda: os.path.exists(DOWNLOADS + s.phone_2.file_name), False,
          lambda _: f"{DOWNLOADS}{s.phone_2.file_name} is gone")
    s.see("the old one stays", lambda: [s.phone.starts()[-1]["version"], s.listed(PHONE)],
          ["1.1.0"] * 2, lambda _: f"1.1.0 runs on with pid {s.phone.pid()}")


def broken_download(s):
    package, since = s.phone_2, len(s.cloud.device.upgrades)
    mark, cut = s.platform.mark(), len(package.data) // 3
    s.cloud.offer(package)
    s.platform.dl.answer("GET /packages/" + package.file_name,
                         Answer(package.data, cut_after=cut), times=1)
    s.say("The right package lies there now, but the line breaks after a third of it.")
    status, _text, _ = s.update(PHONE, package)
    s.see("failed", lambda: [s.status(PHONE), status], [3, 1],
          lambda _: f"{number(len(kept()))} of {number(len(package.data))}; status 3")
    s.see_report(PHONE, "1.2.0", "download failed", since)
    s.say("The user tries again.")
    status, _text, _ = s.update(PHONE, package)
    s.see("the other method", lambda: s.attempts(package, mark),
          lambda all: len(all) == 2 and all[0].endswith("no user agent") and "Wget" in all[1],
          lambda all: f"own client ({all[0]}), then wget ({all[1]})")
    s.see("host found for wget", lambda: next(
        one for one in s.dns.queries if one[:2] == (OWN_SERVER, DOWNLOAD_SERVER)),
          lambda query: s.dns.names[query[1]][0] in read_text(HOSTS),
          lambda query: f"{query[1]} at {query[0]}, by {RESOLVERS[query[0]]}, into {HOSTS}")
    s.see("installed", lambda: [status, s.listed(PHONE), s.phone.starts()[-1]["version"]],
          [0, "1.2.0", "1.2.0"], lambda _: f"1.2.0 runs with pid {s.phone.pid()}")
    s.see_report(PHONE, "1.2.0", "ok", since)


def forced(s):
    since, mark, before = len(s.cloud.device.upgrades), s.platform.mark(), s.device.cloudae.pid()
    s.cloud.offer(s.agent, force=True)
    s.say("The platform says force_upgrade for cloudae. Nobody types anything; the device's clock "
          f"moves on by more than its check cycle, {CHECK_CYCLE} s.")
    s.device.cloudae.behave(keepalive=0.3)
    # In two steps with signs of life between them: no agent is to be taken for silent.
    s.later(CHECK_CYCLE // 2 + 10)
    time.sleep(1.5)
    s.later(CHECK_CYCLE // 2 + 10)
    s.see("the device asks by itself", lambda: s.platform.requests("GET */apps/cloudae", mark)[-1],
          show=first_line)
    s.see("fetched", lambda: s.attempts(s.agent, mark)[0],
          show=lambda how: f"{s.agent.file_name}, {how}")
    s.see_report("cloudae", "1.0.31", "ok", since)
    s.see("the new cloudae runs", lambda: s.device.cloudae.starts()[-1],
          lambda now: now["version"] == "1.0.31" and now["pid"] == s.device.cloudae.pid() != before,
          lambda now: f"version {now['version']}, pid {now['pid']} (was {before})")
    s.see("installed and restarted", lambda: [s.status("cloudae"), s.listed("cloudae")],
          [7, "1.0.31"], lambda _: "status 7, 1.0.31 in the version list file")


def silence(s):
    s.device.cloudae.behave(keepalive=2)
    before, starts = s.device.cloudae.pid(), len(s.device.cloudae.starts())
    os.kill(before, signal.SIGSTOP)
    s.see("cloudae hangs", lambda: read_text(f"/proc/{before}/stat").split()[2], "T",
          lambda _: f"pid {before} is stopped, no sign of life from it")
    s.device.plugins()  # in order: by its answer the last sign of life has been taken, too
    s.later(SILENCE - 60)
    time.sleep(1)
    s.see("five minutes: patience", lambda: [s.device.cloudae.pid(), len(s.device.cloudae.starts())],
          [before, starts], lambda _: f"pid {before} is left alone")
    s.later(90)
    s.see("over six: restarted", lambda: s.device.cloudae.starts()[starts:],
          show=lambda new: f"pid {new[0]['pid']}, version {new[0]['version']}")
    s.see("log", lambda: s.device.log_lines("cloudae is not running"),
          show=lambda lines: lines[-1][lines[-1].index("cloudae is"):])
    s.see("it answers the daemon", lambda: s.device.get(80000)["id80001"], "ok")


def self_upgrade(s):
    package = build("pluginmgr", NEXT_VERSION, files={DAEMON: NEXT_DAEMON})
    old, since, boots = s.device.pid(), len(s.cloud.device.upgrades), len(s.cloud.device.uptimes)
    s.cloud.offer(package)
    s.device.get(80025)
    s.say(f"The daemon itself: {VERSION} with pid {old}; the platform has {NEXT_VERSION}.")
    status, _text, _ = s.update("pluginmgr", package)
    s.see("pluginctl saw it through", lambda: status, 0, lambda _: "exit status 0")
    s.see_report("pluginmgr", NEXT_VERSION, "ok", since)
    s.see("the old one has ended", lambda: s.first.poll(), 0, lambda _: f"pid {old}, exit status 0")
    s.see("a new pid", lambda: s.device.is_ready() and s.device.pid(), lambda pid: pid not in (0, old),
          lambda pid: f"pid {pid} in the pid file")
    s.see("the new version", lambda: s.device.plugins()["pluginmgr"]["pluginVersion"], NEXT_VERSION)
    s.see("versions reported", lambda: s.cloud.device.reported["versions"],
          lambda text: {"pluginmgr:" + NEXT_VERSION, PHONE + ":1.2.0"} <= set(text.split(",")))
    s.see("boot reported", lambda: s.cloud.device.uptimes[boots:], show=lambda new: "deviceBoot, uptime=" + new[0])
    s.pluginctl("status")


def second_copy(s):
    pid = s.device.pid()
    second = s.device.start(ready=False)
    s.see("a second copy refuses", second.poll, 255,
          lambda code: f"pid {second.pid} ended at once with exit status {code}")
    s.see("the first goes on", lambda: [s.device.pid(), s.device.daemons()], [pid, [pid]],
          lambda _: f"pid {pid}, pid file untouched")


CHAPTERS = (
    ("A device without history boots", boot),
    ("It finds the platform", connect),
    ("It activates", activate),
    ("It registers", register),
    ("The platform has something new", offer),
    ("The user updates a plug-in", upgrade),
    ("One flipped byte", flipped_byte),
    ("A download breaks off", broken_download),
    ("A forced upgrade", forced),
    ("cloudae falls silent", silence),
    ("The daemon upgrades itself", self_upgrade),
    ("A second copy", second_copy),
) + act_two.CHAPTERS


def save_evidence(s):
    """Logs and journal to the folder that outlives the sandbox, or the end of the log to the page."""
    s.device.save(OUT)
    with open(OUT + "/requests.txt", "w", encoding="latin-1") as file:
        file.write(s.platform.journal_text())
    if os.path.ismount(OUT):
        return s.say("The logs and the request journal (requests.txt) are in the --out folder.")
    s.say("`python3 lab/sandbox.py --out DIR -- /usr/bin/python3 /lab-src/lab/demo.py` keeps the "
          "logs and the request journal; the end of plugin_debug.log:")
    for line in s.device.log().splitlines()[-15:]:
        s.story.page.line("      " + line)


def tell(s):
    for title, chapter in CHAPTERS:
        if chapter is not boot and not s.device.daemons():
            return s.story.chapter(title, s.see, "the daemon runs", s.device.daemons)
        s.story.chapter(title, chapter, s)


def main():
    started = time.monotonic()
    s = Scene()
    s.story.page.line()
    s.say(f"pluginmgr {VERSION}, from power-on to its upgraded plug-ins and its owner's settings: "
          "the release build on a simulated device, with its cloud platform.")
    try:
        tell(s)
    except KeyboardInterrupt:
        s.story.page.line()
        return 130
    finally:
        s.device.kill_all()
    status = s.story.end(time.monotonic() - started)
    if status:
        save_evidence(s)
    return status


if __name__ == "__main__":
    sys.exit(main())
