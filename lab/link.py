# SPDX-License-Identifier: Apache-2.0
"""A slow, lossy line between the device and everything outside it.

Every TCP packet to or from port 443 or 80 and every DNS datagram, each way, leaves the sandbox's
kernel through a tun device, waits here, and goes back in or is lost: what `tc netem` does, without
the need for a kernel that has it. TCP itself is the kernel's. Local control does not pass here."""
import collections
import fcntl
import os
import random
import select
import struct
import subprocess
import threading
import time

TUN, SET_INTERFACE, PACKETS_ONLY = "/dev/net/tun", 0x400454CA, 0x1001  # TUNSETIFF, IFF_TUN | IFF_NO_PI
NAME, TABLE, LARGEST = "line", "100", 65536
TCP, UDP = "6", "17"
LINES = ((TCP, "443"), (TCP, "80"), (UDP, "53"))
# both ends are of this machine: its own addresses may come in from outside
OPEN_DOORS = {"accept_local": "1", "route_localnet": "1", "rp_filter": "0"}


def is_possible():
    return os.path.exists(TUN)


def ip(line):
    subprocess.run(["/usr/bin/ip", *line.split()], check=True)


class Link:
    """The line, from now on until `close()`. One for a sandbox.

    loss, delay     share of the packets that are lost (0 to 1), seconds that the others take; any time
    sent, lost      packets so far"""

    def __init__(self, loss=0, delay=0, seed=1):
        self.loss, self.delay, self.sent, self.lost = loss, delay, 0, 0
        self._random, self._under_way = random.Random(seed), collections.deque()
        self._tun = os.open(TUN, os.O_RDWR | os.O_CLOEXEC)
        fcntl.ioctl(self._tun, SET_INTERFACE, struct.pack("16sH22x", NAME.encode(), PACKETS_ONLY))
        ip(f"link set {NAME} up")
        for key, value in OPEN_DOORS.items():
            with open(f"/proc/sys/net/ipv4/conf/{NAME}/{key}", "w") as file:
                file.write(value)
        ip(f"route add default dev {NAME} src 127.0.0.1 table {TABLE}")
        ip("rule add pref 100 lookup local")
        for protocol, port in LINES:
            for end in ("dport", "sport"):
                ip(f"rule add pref 10 iif lo ipproto {protocol} {end} {port} lookup {TABLE}")
        ip("rule del pref 0")
        self._closing, self._closed = os.pipe()
        self._pump = threading.Thread(target=self._run, daemon=True)
        self._pump.start()

    def close(self):
        """Everything goes the short way again."""
        ip("rule add pref 0 lookup local")
        for _ in range(2 * len(LINES)):
            ip("rule del pref 10")
        ip("rule del pref 100")
        os.close(self._closed)
        self._pump.join()
        os.close(self._closing)
        os.close(self._tun)

    def _run(self):
        while True:
            now = time.monotonic()
            while self._under_way and self._under_way[0][0] <= now:
                os.write(self._tun, self._under_way.popleft()[1])
            left = self._under_way[0][0] - now if self._under_way else None
            ready = select.select([self._tun, self._closing], [], [], left)[0]
            if self._closing in ready:
                return
            if ready:
                self._take(os.read(self._tun, LARGEST))

    def _take(self, packet):
        self.sent += 1
        if self._random.random() < self.loss:
            self.lost += 1
        else:
            self._under_way.append((time.monotonic() + self.delay, packet))
