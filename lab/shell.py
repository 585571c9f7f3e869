# SPDX-License-Identifier: Apache-2.0
"""`./dev lab`: a device and its platform with a shell in it; and labctl, their remote control.

Without arguments this is the lab itself; with arguments (as /run/lab/bin/labctl) it hands them
to the running lab over a Unix socket and prints the answer."""
import json
import os
import shlex
import socket
import subprocess
import sys
import threading

from . import deployment
from .device import Device, install, plugin_files
from .package import build
from .platform import ADDRESSES, Answer, Platform
from .platform.host import FAULTS

CONTROL = "/run/lab/labctl.socket"
SETTINGS = {"cloudserver": "on", "active_token": "token-of-the-owner"}
LABCTL = b'#!/bin/sh\nexec /usr/bin/python3 -m lab.shell "${@:-help}"\n'
PROMPT = r"\[\e[1;36m\]device\[\e[0m\]:\w# "
PAGE = """
  A device runs here, with its cloud platform around it. Nothing of it touches your machine;
  leave the shell and it is gone.

  daemon      /var/run/pluginmgr, pid {pid}, version {version}, mode on, control port 127.0.0.1:6907
  agents      /var/run/cloudae, /var/run/cloudsafety
  settings    /var/config/cloud/pluginmgr.ini
  logs        /var/log/plugin_debug.log, plugin_err.log, plugin_msg.log
  platform    {addresses}
  names       127.0.0.1, .2 and .3, port 53

  Try:
    pluginctl status                       what the device says about itself
    labctl offer cloud_phone 1.1.0         let the platform offer a new version
    pluginctl check                        ... the device asks for it
    pluginctl update cloud_phone --watch   ... and installs it
    labctl requests                        what the platform was asked
  `labctl help` has the rest: faults, answers, silent agents, the other wget.
"""


class Lab:
    def __init__(self):
        self.platform, self.device = Platform(), Device()
        self.device.reset(SETTINGS)

    def offer(self, name, version, *options):
        """offer NAME VERSION [--force] [--bad] [--http] [--size BYTES]   put a package on offer"""
        padding = int(options[options.index("--size") + 1]) if "--size" in options else 200000
        package = build(name, version, files=plugin_files(name, version), padding=padding)
        changes = {"signature": "0" * 40} if "--bad" in options else {}
        offer = self.platform.cloud.offer(package, "http" if "--http" in options else "https",
                                          force="--force" in options, **changes)
        return f"offered at {offer.link}, {offer.size} bytes"

    def requests(self, count="10"):
        """requests [COUNT]   the last requests that the platform saw"""
        return "\n".join(f"{one.host:8} {one.status} {one.method} {one.target}"
                         for one in self.platform.journal[-int(count):])

    def answer(self, host, pattern, status, body=""):
        """answer HOST 'METHOD /PATH*' STATUS [BODY]   answer so from now on"""
        self.platform.hosts[host].answer(pattern, Answer(body, int(status)))
        return "until `labctl heal`"

    def fault(self, host, fault):
        """fault HOST refuse|stall|close|reset|mute   let connections to a host fail"""
        if fault not in FAULTS:
            return "one of " + ", ".join(FAULTS)
        self.platform.hosts[host].fail(fault)
        return "until `labctl heal`"

    def heal(self):
        """heal   the platform works again: no faults, no answers of your own"""
        for host in self.platform.hosts.values():
            host.reset()
        return "healed"

    def wget(self, kind):
        """wget busybox|gnu   the wget that the daemon finds"""
        self.device.wget(kind)
        return "/bin/wget is " + os.readlink("/bin/wget")

    def silence(self, name):
        """silence cloudae|cloudsafety   no more signs of life"""
        getattr(self.device, name).behave(keepalive=0)
        return "silent; `labctl time 400` spares you the wait"

    def speak(self, name):
        """speak cloudae|cloudsafety   signs of life again"""
        getattr(self.device, name).behave(keepalive=2)
        return "it speaks"

    def time(self, seconds):
        """time SECONDS   set the daemon's clock so far from the real one"""
        self.device.shift_time(int(seconds))
        return "shifted"

    def restart(self):
        """restart   kill everything of the device and start the daemon again"""
        self.device.kill_all()
        return f"pid {self.device.start(faketime=True).pid}"


def commands():
    return {name: member for name, member in vars(Lab).items() if not name.startswith("_")}


def perform(lab, words):
    """The answer to one labctl command line; its errors are an answer too."""
    command = commands().get(words[0])
    if not command:
        return "\n".join("labctl " + one.__doc__ for one in commands().values())
    try:
        return command(lab, *words[1:])
    except (TypeError, KeyError, AttributeError, ValueError, AssertionError) as error:
        return f"{error}\nlabctl {command.__doc__}"


def serve(lab):
    with socket.create_server(CONTROL, family=socket.AF_UNIX) as server:
        while True:
            peer, _ = server.accept()
            with peer, peer.makefile("rw") as stream:
                stream.write(perform(lab, json.loads(stream.readline())) + "\n")


def ask(words):
    """labctl: the other end of serve()."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as one:
        one.connect(CONTROL)
        with one.makefile("rw") as stream:
            stream.write(json.dumps(words) + "\n")
            stream.flush()
            print(stream.read(), end="")


def page(lab):
    width = max(map(len, ADDRESSES))
    addresses = "\n              ".join(f"{name:{width}}  {address}"
                                        for name, address in ADDRESSES.items())
    return PAGE.format(pid=lab.device.pid(), version=deployment.VERSION, addresses=addresses)


def interactive_shell():
    if os.path.exists("/usr/bin/bash"):
        return ["/usr/bin/bash", "--rcfile", "/run/lab/bashrc"]
    return ["/bin/sh"]


def main():
    if len(sys.argv) > 1:
        return ask(sys.argv[1:])
    lab = Lab()
    if not os.path.exists("/var/run/pluginmgr"):
        sys.exit("lab: no daemon; ./dev build makes it")
    install("/run/lab/bin/labctl", LABCTL)
    if os.path.exists("/lab-build/pluginctl"):
        os.symlink("/lab-build/pluginctl", "/run/lab/bin/pluginctl")
    with open("/run/lab/bashrc", "w") as file:
        file.write(f"PS1={shlex.quote(PROMPT)}\ncd /root\n")
    threading.Thread(target=serve, args=(lab,), daemon=True).start()
    lab.device.start(faketime=True)
    print(page(lab), flush=True)
    status = subprocess.run(interactive_shell()).returncode
    lab.device.kill_all()
    return status


if __name__ == "__main__":
    sys.exit(main())
