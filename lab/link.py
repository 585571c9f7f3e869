# SPDX-License-Identifier: Apache-2.0
"""A slow, lossy line between the device and everything outside it.

Every TCP packet to or from port 443 or 80 and every DNS datagram, each way, leaves the sandbox's
kernel through one end of a pair of Ethernet devices, waits here at the other end, and goes back in or is
lost: what `tc netem` does, without the need for a kernel that has it. TCP itself is the kernel's. Local
control does not pass here."""
import collections
import os
import random
import select
import socket
import subprocess
import threading
import time

NAME, FAR_END, TABLE, LARGEST = "line", "far", "100", 65536
IPV4, PACKET_LEVEL, WITH_OFFLOADS = 0x0800, 263, 15  # ETH_P_IP, SOL_PACKET, PACKET_VNET_HDR
TCP, UDP = "6", "17"
LINES = ((TCP, "443"), (TCP, "80"), (UDP, "53"))
# both ends are of this machine: its own addresses may come in from outside
OPEN_DOORS = {"accept_local": "1", "route_localnet": "1", "rp_filter": "0"}


def ip(line):
    subprocess.run(["/usr/bin/ip", *line.split()], check=True)


def far_end():
    """A socket of the packets that leave by the line. They are addressed to the line itself, so this
    side's own kernel takes none of them, and what is sent back as it came arrives there. Each has
    before it what the kernel has left to do: no checksum is there yet."""
    end = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(IPV4))
    end.setsockopt(PACKET_LEVEL, WITH_OFFLOADS, 1)
    end.bind((FAR_END, IPV4))
    return end


def is_possible():
    """Whether the kernel has such devices."""
    try:
        ip(f"link add {NAME} type veth peer name {FAR_END}")
    except subprocess.CalledProcessError:
        return False
    ip(f"link del {NAME}")
    return True


class Link:
    """The line, from now on until `close()`. One for a sandbox.

    loss, delay     share of the packets that are lost (0 to 1), seconds that the others take; any time
    sent, lost      packets so far"""

    def __init__(self, loss=0, delay=0, seed=1):
        self.loss, self.delay, self.sent, self.lost = loss, delay, 0, 0
        self._random, self._under_way = random.Random(seed), collections.deque()
        ip(f"link add {NAME} type veth peer name {FAR_END}")
        ip(f"link set {NAME} arp off gso_max_segs 1 up")
        ip(f"link set {FAR_END} up")
        self._end = far_end()
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
        self._end.close()
        ip(f"link del {NAME}")

    def _run(self):
        while True:
            now = time.monotonic()
            while self._under_way and self._under_way[0][0] <= now:
                self._end.send(self._under_way.popleft()[1])
            left = self._under_way[0][0] - now if self._under_way else None
            ready = select.select([self._end, self._closing], [], [], left)[0]
            if self._closing in ready:
                return
            if ready:
                self._take(self._end.recv(LARGEST))

    def _take(self, packet):
        self.sent += 1
        if self._random.random() < self.loss:
            self.lost += 1
        else:
            self._under_way.append((time.monotonic() + self.delay, packet))
