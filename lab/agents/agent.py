#!/usr/bin/python3 -IS
# SPDX-License-Identifier: Apache-2.0
"""A supervised program of the device. lab.device installs it as /var/run/cloudae and as
/var/run/cloudsafety; it plays the one whose name it was started under.

Its orders are read again on every turn from /run/lab/NAME.json (see DEFAULT_ORDERS), its doings
go to /run/lab/NAME.journal, one JSON object a line; lab.device.Agent is the other end of both.
A datagram to /run/lab/NAME.command, {"type": number, "text": text}, is sent on to the daemon."""
import json
import os
import select
import socket
import struct
import sys
import time

VERSION = "1.0.30"  # lab.device.agent_program() writes another version here
NAME = os.path.basename(sys.argv[0])
FILES = "/run/lab/" + NAME
DAEMON, OWN = "/var/run/pluginmgr_ctl", "/var/run/cloudae_ctl"
CONTROL_PORT = ("127.0.0.1", 6907)
STATUS_QUERY = 0x1000
TURN_SECONDS = 0.1
DEFAULT_ORDERS = {
    "keepalive": 2.0,   # seconds between signs of life, 0 for silence
    "state": 0,         # connection state answered to the status query; None: no answer
    "enable": True,     # cloudsafety's --version says so
    "version": None,    # instead of VERSION
    "crash": False,     # end right after the start
}


def orders():
    try:
        with open(FILES + ".json") as file:
            return DEFAULT_ORDERS | json.load(file)
    except (OSError, ValueError):
        return DEFAULT_ORDERS


def note(event, **values):
    entry = {"event": event, "pid": os.getpid(), "time": time.time()} | values
    with open(FILES + ".journal", "a") as file:
        file.write(json.dumps(entry) + "\n")


def version_text(now):
    text = f"{NAME} version {now['version'] or VERSION}\n"
    return text + ("keep-alive enable\n" if NAME == "cloudsafety" and now["enable"] else "")


def bind(path):
    if os.path.exists(path):
        os.unlink(path)
    one = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    one.bind(path)
    return one


def take_message(ctl):
    """Notes what the daemon sent, and answers its status query."""
    data, sender = ctl.recvfrom(4096)
    kind = struct.unpack_from("=I", data)[0] if len(data) >= 4 else None
    note("message", type=kind, text=data[20:].rstrip(b"\0").decode("latin-1"),
         length=len(data), sender=sender, raw=data.hex())
    state = orders()["state"]
    if kind == STATUS_QUERY and sender and state is not None:
        ctl.sendto(struct.pack("=II12x", kind, state), sender)


def pass_command_on(command, ctl):
    wanted = json.loads(command.recv(65536))
    message = struct.pack("=I16x", wanted["type"]) + wanted["text"].encode("latin-1")
    try:
        ctl.sendto(message + b"\0", DAEMON)
    except OSError as error:
        note("send failed", error=str(error))


def live():
    ctl = bind(OWN if NAME == "cloudae" else FILES + ".ctl")
    command = bind(FILES + ".command")
    udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    note("start", argv=sys.argv, version=VERSION, env=dict(os.environ))
    last = None
    while True:
        readable, _, _ = select.select([ctl, command], [], [], TURN_SECONDS)
        if ctl in readable:
            take_message(ctl)
        if command in readable:
            pass_command_on(command, ctl)
        interval = orders()["keepalive"]
        if interval and (last is None or time.monotonic() - last >= interval):
            udp.sendto(b"keep" + NAME.encode(), CONTROL_PORT)
            last = time.monotonic()


if "--version" in sys.argv:
    print(version_text(orders()), end="")
elif orders()["crash"]:
    note("crash", argv=sys.argv)
else:
    live()
