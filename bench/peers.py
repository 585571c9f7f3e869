#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The part of the bench about footprint, in the sandbox: the idle services of Debian that do a like
job, as far as they are installed. Each has a configuration that lets it start and nothing to do.
Prints one line of JSON: {"idle": {name: {"pss_kb", "dirty_kb", "processes", "disk_kb"}}, "absent":
names of those that are not installed, "ended": of those that did not stay}; disk_kb is the program
and all libraries that it loads, the rest medians of looks at one after the other."""
import argparse
import json
import os
import re
import shutil
import subprocess
import sys
import time
from contextlib import ExitStack
from pathlib import Path

from inside import BUILD, START_SECONDS, field, idle_device, medians

SETTLE_SECONDS = 5
KEY = "/etc/peer.pem"
BUS = "/run/dbus/system_bus_socket"
FILES = {
    "/etc/bus.conf": f"""<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>system</type><listen>unix:path={BUS}</listen>
<policy context="default"><allow send_destination="*"/><allow own="*"/></policy></busconfig>
""",
    "/etc/rauc.conf": f"""[system]
compatible=lab
bootloader=noop
statusfile=/var/lib/rauc.status
[keyring]
path={KEY}
[slot.rootfs.0]
device=/tmp/slot
type=raw
bootname=A
""",
    "/etc/mender/mender.conf": '{"ServerURL": "https://127.0.0.1", "UpdatePollIntervalSeconds": 600,'
                               ' "InventoryPollIntervalSeconds": 600}\n',
    "/etc/mender/artifact_info": "artifact_name=lab\n",
    "/var/lib/mender/device_type": "device_type=lab\n",
    "/tmp/slot": "empty\n",
}
PEERS = {
    "rauc service": ("rauc", "-c", "/etc/rauc.conf", "service"),
    "swupdate": ("swupdate", "-k", KEY, "-w", "-r /tmp -p 8089"),
    "mender": ("mender", "--data", "/var/lib/mender", "daemon"),
}
NEEDS = {"rauc service": "dbus-daemon"}


def write_files():
    for path, text in FILES.items():
        os.makedirs(os.path.dirname(path), exist_ok=True)
        Path(path).write_text(text)
    os.makedirs(os.path.dirname(BUS), exist_ok=True)
    subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
                    "-subj", "/CN=lab", "-keyout", "/etc/peer.key", "-out", KEY],
                   check=True, capture_output=True)


def family(pid):
    """The process and its children's children."""
    children = Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
    return [pid] + [one for child in children for one in family(int(child))]


def loaded_kb(program):
    listed = subprocess.run([program], env={"LD_TRACE_LOADED_OBJECTS": "1"}, capture_output=True,
                            text=True).stdout  # what ldd does; it is a script for a shell
    libraries = re.findall(r"(/\S+) \(0x", listed)
    return sum(os.stat(os.path.realpath(path)).st_size for path in (program, *libraries)) / 1000


def footprint(pid, program):
    processes = family(pid)
    looks = [Path(f"/proc/{one}/smaps_rollup").read_text() for one in processes]
    return {"pss_kb": sum(field(look, "Pss") for look in looks),
            "dirty_kb": sum(field(look, "Private_Dirty") for look in looks),
            "processes": len(processes), "disk_kb": loaded_kb(program)}


def quietly(*command):
    return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL,
                            env=os.environ | {"DBUS_SYSTEM_BUS_ADDRESS": "unix:path=" + BUS})


def installed(name, command):
    return all(shutil.which(program) for program in (command[0], NEEDS.get(name, command[0])))


def measure(rounds):
    present = {name: command for name, command in PEERS.items() if installed(name, command)}
    with ExitStack() as cleanup:
        def run(*command):
            process = quietly(*command)
            cleanup.callback(process.wait)
            cleanup.callback(process.kill)
            return process
        if shutil.which("dbus-daemon"):
            run("dbus-daemon", "--config-file=/etc/bus.conf", "--nofork")
            time.sleep(1)
        daemon = cleanup.enter_context(idle_device())
        started = {name: run(*command) for name, command in present.items()}
        time.sleep(SETTLE_SECONDS + START_SECONDS / 4)
        programs = {"pluginmgr": (daemon.pid, str(BUILD / "pluginmgr"))} | {
            name: (process.pid, shutil.which(present[name][0]))
            for name, process in started.items() if process.poll() is None}
        looks = {name: [] for name in programs}
        for _ in range(rounds):
            for name, words in programs.items():
                looks[name].append(footprint(*words))
            time.sleep(1)
    return {"idle": {name: medians(results) for name, results in looks.items()},
            "absent": [name for name in PEERS if name not in present],
            "ended": [name for name in present if name not in programs]}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, required=True)
    options = parser.parse_args()
    write_files()
    print(json.dumps(measure(options.rounds)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
