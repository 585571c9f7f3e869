# SPDX-License-Identifier: Apache-2.0
"""Runs a program of the lab in a sandbox whose daemon is of another processor:

    python3 lab/sandbox.py --build build/aarch64 --sysroot build/sysroot/arm64 -- \\
        /usr/bin/python3 -m lab.emulated /usr/bin/python3 -m lab.demo

The kernel is told, for this sandbox only, what runs programs of that processor: shells, agents and
the daemon start them by their names as on a device. Linux 6.7 is the first that takes this from a
sandbox."""
import ctypes
import os
import sys

BINARY = "/lab-build/pluginmgr"
FORMATS = "/run/lab/formats"
MASK = bytes.fromhex("ffffffff fffffffc ffffffff ffffffff feffffff")  # of an ELF file's start
MACHINE = 18  # where in it the processor stands
EMULATORS = {40: "/usr/bin/qemu-arm-static", 183: "/usr/bin/qemu-aarch64-static"}


def escaped(data):
    return "".join(f"\\x{byte:02x}" for byte in data)


def register():
    """F opens the emulator now, P keeps a program's own name for itself."""
    with open(BINARY, "rb") as file:
        start = file.read(len(MASK))
    os.makedirs(FORMATS)
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.mount(b"lab", FORMATS.encode(), b"binfmt_misc", 0, None) != 0:
        sys.exit("emulated: " + os.strerror(ctypes.get_errno()) + ": this takes Linux 6.7")
    with open(FORMATS + "/register", "w") as file:
        file.write(f":lab:M::{escaped(start)}:{escaped(MASK)}:{EMULATORS[start[MACHINE]]}:FP")


if __name__ == "__main__":
    register()
    os.execv(sys.argv[1], sys.argv[1:])
