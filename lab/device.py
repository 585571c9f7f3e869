# SPDX-License-Identifier: Apache-2.0
"""The device: its files, its agents, the daemon on it, and the ways to talk to the daemon."""
import dataclasses
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import time

from .platform.cloud import DEVICE_ID

DAEMON = "/var/run/pluginmgr"
PID_FILE = DAEMON + ".pid"
CONTROL_SOCKET = DAEMON + "_ctl"
CONTROL_PORT = ("127.0.0.1", 6907)
CONTROL_PORT_LISTED = "0100007F:%04X" % CONTROL_PORT[1]  # as /proc/net/udp has it
INI = "/var/config/cloud/pluginmgr.ini"
AGENT_INI = "/var/config/cloud/cloudae.ini"
VERSION_LIST = "/var/config/cloud/cloud_plugin_version.json"
FLASH = "/dev/rkflash0p4"
DEBUG_LOG, ERROR_LOG = "/var/log/plugin_debug.log", "/var/log/plugin_err.log"
MESSAGE_LOG = "/var/log/plugin_msg.log"
HOSTS = "/etc/hosts"
WIPED = ("/var/config/cloud", "/var/run", "/var/log", "/var/tmp", "/var/bin", "/var/lib", "/tmp")
AGENTS = ("cloudae", "cloudsafety")
AGENT_SOURCE = "/lab-src/lab/agents/agent.py"
NEXT_DAEMON = "/lab-build/lab/pluginmgr_next"  # the same daemon under a higher version
LAB = "/run/lab/"
FAKE_TIME_FILE = LAB + "faketime"
DAEMON_OUTPUT = LAB + "daemon.out"
EMULATOR = "/usr/bin/qemu-"  # of lab.emulated
WGETS = {"busybox": "/usr/bin/busybox", "gnu": "/usr/bin/wget"}

MAC = "00:11:22:AA:bb:cc"
DEFAULT_SETTINGS = {"loglevel": 8, "dns1": "127.0.0.1", "dns2": "127.0.0.2", "dns3": "127.0.0.3"}
DEFAULT_PLUGINS = {"cloud_phone": "1.0.0"}
ENROLLED = {"active_state": "true", "device_key": "key-of-the-device", "cloudserver": "on"}
# Statuses of a plug-in; NOT_OFFERED also when the platform cannot be asked.
IDLE, DOWNLOAD_FAILED, DOWNLOADED, INSTALLING, INSTALL_FAILED, RESTARTED = 0, 3, 4, 5, 6, 7
UP_TO_DATE, NOT_OFFERED = 9, 10
VERSION_FILE = "HW_REVISION=V1.0 KQ900-A\nSW_REVISION=REL 53.20.1\n"

# Every process of the device inherits this from the daemon's environment; it is how they are
# found again, whoever their parent is by then.
MARK = "LAB_DEVICE=1"
ENVIRONMENT = {"PATH": "/bin:/sbin", "HOME": "/root", "LAB_DEVICE": "1"}
ENVIRONMENT |= {name: os.environ[name]  # of a sanitized build, of one for another processor
                for name in ("ASAN_OPTIONS", "TSAN_OPTIONS", "QEMU_LD_PREFIX")
                if name in os.environ}
FAKE_TIME_ENVIRONMENT = {
    "LD_PRELOAD": "/usr/$LIB/faketime/libfaketimeMT.so.1",
    "FAKETIME_TIMESTAMP_FILE": FAKE_TIME_FILE,
    "FAKETIME_NO_CACHE": "1",
    "FAKETIME_DONT_FAKE_MONOTONIC": "1",
    "NO_FAKE_STAT": "1",
}
HEADER = struct.Struct("=8sIIIIIB3x")  # of the control protocol, both ways
MARKER = 0x8888


def wait_until(check, timeout=10, what="it", pause=0.05):
    """The first true value of check(), asked every `pause`; AssertionError after `timeout`."""
    deadline = time.monotonic() + timeout
    while True:
        value = check()
        if value:
            return value
        assert time.monotonic() < deadline, f"{what} did not happen within {timeout} s"
        time.sleep(pause)


def read_text(path):
    """A file as text, empty when there is none."""
    try:
        with open(path, encoding="latin-1") as file:
            return file.read()
    except OSError:
        return ""


def write_text(path, text):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "w") as file:
        file.write(text)


def agent_program(version="1.0.30"):
    """The bytes of an agent program that says it is of this version, for install or a package."""
    with open(AGENT_SOURCE) as file:
        return file.read().replace('VERSION = "1.0.30"', f'VERSION = "{version}"').encode()


def plugin_files(name, version):
    """What a package of an application of the device brings, for `files` of lab.package.build."""
    if name == "pluginmgr":
        return {DAEMON: NEXT_DAEMON}
    return {"/var/run/" + name: agent_program(version)} if name in AGENTS else {}


def install(path, data):
    """Puts a program in place by a rename, so that a running one is not written into."""
    with open(path + ".new", "wb") as file:
        file.write(data)
    os.chmod(path + ".new", 0o755)
    os.replace(path + ".new", path)


@dataclasses.dataclass
class Reply:
    """One reply datagram of the daemon."""
    cookie: int
    echo: int
    marker: int
    marker_flag: int
    text: str
    raw: bytes

    def json(self):
        return json.loads(self.text)


class Agent:
    """The lab's end of an agent program; see lab/agents/agent.py for the orders."""

    def __init__(self, name):
        self.name = name
        self._files = LAB + name

    def install(self, version="1.0.30"):
        install("/var/run/" + self.name, agent_program(version))

    def behave(self, **orders):
        """Replaces single orders; they hold from the agent's next turn (0.1 s) on."""
        path = self._files + ".json"
        known = json.loads(read_text(path) or "{}")
        write_text(path + ".new", json.dumps(known | orders))
        os.replace(path + ".new", path)

    def journal(self, event=None):
        """What it did: dicts with event (start, message, crash, send failed), pid, time ..."""
        entries = [json.loads(line) for line in read_text(self._files + ".journal").splitlines()]
        return [entry for entry in entries if event in (None, entry["event"])]

    def starts(self):
        return self.journal("start")

    def messages(self, kind=None):
        """Messages that the daemon sent it, all or of one type."""
        return [one for one in self.journal("message") if kind in (None, one["type"])]

    def pid(self):
        """Of the running agent, None when it does not run."""
        pids = [pid for pid in device_processes()
                if read_text(f"/proc/{pid}/comm").strip() == self.name]
        return pids[-1] if pids else None

    def send(self, kind, text=""):
        """Lets the running agent send the daemon a message; an answer shows up in messages()."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as one:
            one.sendto(json.dumps({"type": kind, "text": text}).encode(), self._files + ".command")

    def wait_started(self, count=1, timeout=15):
        what = f"start {count} of {self.name}"
        return wait_until(lambda: self.starts()[count - 1:], timeout, what)[0]

    def forget(self):
        for suffix in (".json", ".journal", ".command", ".ctl"):
            if os.path.lexists(self._files + suffix):
                os.unlink(self._files + suffix)


def device_processes():
    """Pids of everything that the daemon or its offspring started, zombies left out."""
    return [int(pid) for pid in sorted(filter(str.isdigit, os.listdir("/proc")), key=int)
            if MARK in read_text(f"/proc/{pid}/environ").split("\0")]


class Device:
    """One per sandbox; `reset()` gives a new one out of the box.

    cloudae, cloudsafety    its agents (Agent)"""

    def __init__(self, binary="/lab-build/pluginmgr"):
        self.binary = binary
        self.cloudae, self.cloudsafety = Agent("cloudae"), Agent("cloudsafety")
        self._children = []

    # -- files ------------------------------------------------------------------------------------

    def reset(self, settings=None, update=None, plugins=None, mac=MAC, device_id=DEVICE_ID,
              agents=AGENTS):
        """Kills what runs and writes a device without history.

        settings    section [Config] of pluginmgr.ini, over DEFAULT_SETTINGS (None drops a key)
        update      section [Update], such as {"checkcycle": 600}
        plugins     {name: version} or entries of the version list; default cloud_phone 1.0.0
        mac, device_id    written to flash; None leaves one out
        agents      the agent programs installed"""
        self.kill_all()
        self._wipe()
        self.write_flash(mac, device_id)
        self.write_settings(settings or {}, update or {})
        self.write_plugins(DEFAULT_PLUGINS if plugins is None else plugins)
        write_text("/var/log/version", VERSION_FILE)
        for agent in (self.cloudae, self.cloudsafety):
            agent.forget()
            if agent.name in agents:
                agent.install()
        self.install_daemon()

    def _wipe(self):
        for folder in WIPED:
            shutil.rmtree(folder, ignore_errors=True)
            os.makedirs(folder)
        write_text(HOSTS, "127.0.0.1 localhost\n")
        self.resolver("127.0.0.1")
        self.wget("busybox")
        write_text(FAKE_TIME_FILE, "+0")
        write_text(DAEMON_OUTPUT, "")

    def write_flash(self, mac=MAC, device_id=DEVICE_ID):
        flash = bytearray(2048)
        for offset, key, value in ((0, "ethaddr", mac), (1024, "device_id", device_id)):
            if value is not None:
                record = f"{key}={value}".encode()
                flash[offset:offset + len(record)] = record
        with open(FLASH, "wb") as file:
            file.write(flash)

    def write_settings(self, settings, update=None):
        def section(name, values):
            lines = [f"{key}={value}\n" for key, value in values.items() if value is not None]
            return f"[{name}]\n" + "".join(lines) if lines else ""
        config = section("Config", DEFAULT_SETTINGS | settings)
        write_text(INI, config + section("Update", update or {}))

    def write_plugins(self, plugins):
        entries = plugins if isinstance(plugins, list) else [
            {"app_name": name, "version_name": f"{name}-{version}.tar.gz", "version": version,
             "rel_info": "first"} for name, version in plugins.items()]
        write_text(VERSION_LIST, json.dumps(entries))

    def setting(self, key, section="Config", path=INI):
        """A value as it stands in an INI file now, None without one."""
        inside = False
        for line in map(str.strip, read_text(path).splitlines()):
            inside = line == f"[{section}]" if line.startswith("[") else inside
            name, _, value = line.partition("=")
            if inside and name.strip() == key:
                return value.strip()
        return None

    def resolver(self, *servers):
        """The system resolver's servers; one where nobody is, such as 127.0.0.9, lets it fail and
        leaves the daemon to its own resolver and dns1 to dns3."""
        write_text("/etc/resolv.conf", "".join(f"nameserver {one}\n" for one in servers))

    def wget(self, kind):
        """Which program the daemon finds as wget: busybox or gnu. BusyBox's shell still prefers
        its own for a command line; the daemon's download child runs this one."""
        os.symlink(WGETS[kind], "/bin/wget.new")
        os.replace("/bin/wget.new", "/bin/wget")

    def install_daemon(self, path=None):
        if os.path.exists(path or self.binary):
            with open(path or self.binary, "rb") as file:
                install(DAEMON, file.read())

    # -- processes --------------------------------------------------------------------------------

    def start(self, *arguments, faketime=False, env=None, ready=True):
        """Starts the daemon, waits until it answers (unless ready=False) and returns its Popen.
        With faketime, shift_time() moves its wall clock."""
        environment = ENVIRONMENT | (FAKE_TIME_ENVIRONMENT if faketime else {}) | (env or {})
        with open(DAEMON_OUTPUT, "ab") as output:
            child = subprocess.Popen([DAEMON, *arguments], env=environment, cwd="/",
                                     stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                     start_new_session=True)
        self._children.append(child)
        if ready:
            self.wait_ready(child)
        return child

    def reset_enrolled(self, platform, settings=None, agents=(), **others):
        """reset() to a device that the platform knows already; settings over ENROLLED."""
        platform.cloud.device.active = True
        self.reset(settings=ENROLLED | (settings or {}), agents=agents, **others)

    def start_enrolled(self, platform, settings=None, agents=(), rate=1):
        """reset_enrolled() and start with faketime. On return the start is over: none of it logs or
        asks any more."""
        self.reset_enrolled(platform, settings, agents)
        self.shift_time(0, rate)
        self.start(faketime=True)
        platform.wait_request(lambda one: "versions" in one.query)
        wait_until(lambda: self.plugins()["pluginmgr"]["status"] == NOT_OFFERED, what="the check")
        return self

    def threads(self):
        """Ids of the daemon's threads, the main one first; left out is ThreadSanitizer's, the second."""
        threads = sorted(map(int, os.listdir(f"/proc/{self.pid()}/task")))
        with open(self.binary, "rb") as program:
            return threads[:1] + threads[1 + (b"__tsan_init" in program.read()):]

    def is_ready(self):
        """Whether the daemon that holds the pid file has opened the control port."""
        return self.pid() in self.daemons() and CONTROL_PORT_LISTED in read_text("/proc/net/udp")

    def wait_ready(self, child, timeout=30):
        def ready_or_gone():
            assert child.poll() is None, f"the daemon ended: {child.returncode}, {self.errors()}"
            return self.pid() == child.pid and self.is_ready()
        wait_until(ready_or_gone, timeout, "the start of the daemon")

    def shift_time(self, seconds, rate=1):
        """Sets the daemon's wall clock this far from the real one (negative: back). With a rate it
        runs so many times faster, and the daemon's pauses and time limits are that much shorter."""
        write_text(FAKE_TIME_FILE + ".new", f"{seconds:+d}" + (f" x{rate}" if rate != 1 else ""))
        os.replace(FAKE_TIME_FILE + ".new", FAKE_TIME_FILE)

    def pid(self):
        """What the pid file says, None without one."""
        text = read_text(PID_FILE).rstrip("\0")
        return int(text) if text.isdigit() else None

    def daemons(self):
        """Pids of running daemons, their forked children left out."""
        running = {}
        for pid in device_processes():
            try:
                exe = os.readlink(f"/proc/{pid}/exe").removesuffix(" (deleted)")
                if exe.startswith(EMULATOR):  # its first argument is the program
                    exe = read_text(f"/proc/{pid}/cmdline").split("\0")[1]
                if exe == DAEMON:
                    running[pid] = int(read_text(f"/proc/{pid}/stat").rpartition(")")[2].split()[1])
            except (OSError, IndexError):
                pass  # it ended meanwhile
        return [pid for pid, parent in running.items() if parent not in running]

    def wait_new_pid(self, old, timeout=20):
        """The pid of the daemon that took over from `old`, once it is ready."""
        return wait_until(lambda: self.pid() != old and self.is_ready() and self.pid(),
                          timeout, "a restart of the daemon")

    def stop(self, number=signal.SIGTERM, timeout=10):
        """Sends the daemon that start() made last a signal; its exit status (-N: killed by N)."""
        self._children[-1].send_signal(number)
        return self._children[-1].wait(timeout)

    def kill_all(self):
        """Ends everything of the device, restarts that are still to come included."""
        while pids := device_processes():
            for pid in pids:
                try:
                    os.kill(pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass
            for child in self._children:
                child.poll()
        for child in self._children:
            child.wait(5)  # only a reaped process has given up its file locks for sure
        self._children.clear()

    # -- logs -------------------------------------------------------------------------------------

    def log(self):
        return read_text(DEBUG_LOG)

    def errors(self):
        return read_text(ERROR_LOG)

    def output(self):
        """What the daemon and its children wrote to standard output and error."""
        return read_text(DAEMON_OUTPUT)

    def log_lines(self, text):
        return [line for line in self.log().splitlines() if text in line]

    def wait_log(self, text, timeout=10, count=1):
        """The count-th line of the debug log that holds the text."""
        lines = wait_until(lambda: self.log_lines(text)[count - 1:], timeout, f"log line {text!r}")
        return lines[0]

    # -- control protocol -------------------------------------------------------------------------

    def query_all(self, text, cookie=1, echo=None, count=0, timeout=5.0, remote_ip=0x7F000001,
                  variables=1):
        """Sends one request and returns the replies: `count` of them, or all within `timeout`.
        An echo word asks for its return. text may be bytes."""
        head = HEADER.pack(b"", cookie, remote_ip, variables, echo or 0,
                           0 if echo is None else MARKER, 0)
        return self.datagram(head + (text if isinstance(text, bytes) else text.encode("latin-1")),
                             count, timeout)

    def query(self, text, timeout=25.0, **header):
        """The first reply to a query text, None when nobody answers."""
        return next(iter(self.query_all(text, count=1, timeout=timeout, **header)), None)

    def replies(self, text, timeout=20.0):
        """The JSON of each reply to one query text, in order, with no waiting for more: a second
        request from the same socket, which is always answered, marks the end."""
        replies = []
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
            one.settimeout(timeout)
            for cookie, query in ((1, text), (2, "method=gw.config.get&id=80037")):
                head = HEADER.pack(b"", cookie, 0x7F000001, 1, 0, 0, 0)
                one.sendto(head + query.encode("latin-1"), CONTROL_PORT)
            while HEADER.unpack_from(raw := one.recv(65536))[1] == 1:
                replies.append(json.loads(raw[HEADER.size:]))
        return replies

    def datagram(self, data, count=0, timeout=0.0):
        """Sends bytes to the control port as they are; the replies, as query_all."""
        replies, deadline = [], time.monotonic() + timeout
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as one:
            one.sendto(data, CONTROL_PORT)
            while (left := deadline - time.monotonic()) > 0 and not 0 < count <= len(replies):
                one.settimeout(left)
                try:
                    raw = one.recv(65536)
                except TimeoutError:
                    break
                _, cookie, _, _, echoed, marker, flag = HEADER.unpack_from(raw)
                replies.append(Reply(cookie, echoed, marker, flag, raw[32:].decode("latin-1"), raw))
        return replies

    def get(self, parameter, more="", timeout=25.0):
        """The JSON answered for a parameter id, None without an answer; more: "&language=..."."""
        reply = self.query(f"method=gw.config.get&id={parameter}{more}", timeout)
        return reply and reply.json()

    def set(self, timeout=25.0, **values):
        """set(id80000="on"): the JSON of the first reply, None without one."""
        pairs = "".join(f"&{key}={value}" for key, value in values.items())
        reply = self.query("method=gw.config.set" + pairs, timeout)
        return reply and reply.json()

    def action(self, timeout=25.0, **values):
        """action(pluginName="cloudae", pluginAction="update"), as set()."""
        pairs = "".join(f"&{key}={value}" for key, value in values.items())
        reply = self.query("method=gw.app.action" + pairs, timeout)
        return reply and reply.json()

    def plugins(self):
        """{name: entry} of the version and upgrade state of all plug-ins."""
        return {entry["pluginName"]: entry for entry in self.get(80005)}

    def wait_status(self, name, status, timeout=30):
        """The plug-in's entry, once its status is the number given."""
        def reached():
            entry = self.plugins().get(name, {})
            return entry if entry.get("status") == status else None
        # slow enough to leave the daemon idle passes, in which its periodic work is done
        return wait_until(reached, timeout, f"status {status} of {name}", 0.4)

    def message(self, kind, text="", timeout=3.0):
        """Sends the control socket a message from a socket of our own: (type, text) answered, or
        None."""
        path = LAB + "message_ctl"
        if os.path.lexists(path):
            os.unlink(path)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as one:
            one.bind(path)
            one.settimeout(timeout)
            one.sendto(struct.pack("=I16x", kind) + text.encode("latin-1") + b"\0", CONTROL_SOCKET)
            try:
                raw = one.recv(4096)
            except TimeoutError:
                return None
        return struct.unpack_from("=I", raw)[0], raw[20:].rstrip(b"\0").decode("latin-1")

    # -- evidence ---------------------------------------------------------------------------------

    def save(self, folder):
        """Copies the logs and the settings, for a failed test."""
        os.makedirs(folder, exist_ok=True)
        logs = filter(lambda name: name.startswith("plugin_"), os.listdir("/var/log"))
        files = [f"/var/log/{name}" for name in logs]
        files += [INI, HOSTS, DAEMON_OUTPUT] + [f"{LAB}{name}.journal" for name in AGENTS]
        for path in filter(os.path.isfile, files):
            shutil.copy(path, folder)
