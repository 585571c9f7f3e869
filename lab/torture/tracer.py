# SPDX-License-Identifier: Apache-2.0
"""Numbers the side-effecting system calls of a running process and can end or fail any one of them.

    python3 -m lab.torture.tracer PID JOURNAL [LABEL NUMBER kill|ERRNO-NAME]

Every thread and every program that the process starts is followed. Each has a label: the threads
found at the start are 0, 1, 2 ... by age; what N starts is N.1, N.2 ... A point is a label and the
number of the call among the side-effecting ones of that label, so a point means the same in every
run, however threads take turns. JOURNAL gets one JSON object a line for each such call.

kill ends the process and all that it started before the call is made, as a pulled plug would; an
errno name lets this one call fail without being made. "ready" is printed once all is attached."""
import ctypes
import errno
import json
import os
import signal
import struct
import sys

SEIZE, INTERRUPT, LISTEN, GETEVENTMSG = 0x4206, 0x4207, 0x4208, 0x4201
GETREGS, POKEUSER, SYSCALL = 12, 6, 24
OPTIONS = 1 | 2 | 4 | 8 | 16  # TRACESYSGOOD, FORK, VFORK, CLONE, EXEC
EVENT_FORK, EVENT_VFORK, EVENT_CLONE, EVENT_STOP = 1, 2, 3, 128
WALL = 0x40000000
RAX, RDX, RSI, RDI, ORIG_RAX, REGISTERS = 10, 12, 13, 14, 15, 27  # of user_regs_struct, x86-64
ENTERED = -errno.ENOSYS  # RAX when a call is about to be made
WRITING = os.O_WRONLY | os.O_RDWR | os.O_CREAT

# number: (name, what its first or second argument is)
CALLS = {1: ("write", "fd"), 18: ("pwrite", "fd"), 20: ("writev", "fd"), 40: ("sendfile", "fd"),
         2: ("open", "path"), 257: ("openat", "path2"), 85: ("creat", "path"),
         76: ("truncate", "path"), 77: ("ftruncate", "fd"), 285: ("fallocate", "fd"),
         82: ("rename", "path"), 264: ("renameat", "path2"), 316: ("renameat2", "path2"),
         87: ("unlink", "path"), 263: ("unlinkat", "path2"), 84: ("rmdir", "path"),
         83: ("mkdir", "path"), 258: ("mkdirat", "path2"), 86: ("link", "path"),
         88: ("symlink", "path"), 90: ("chmod", "path"), 91: ("fchmod", "fd"),
         268: ("fchmodat", "path2"), 74: ("fsync", "fd"), 75: ("fdatasync", "fd"),
         56: ("clone", ""), 57: ("fork", ""), 58: ("vfork", ""), 435: ("clone3", ""),
         59: ("execve", "path"), 44: ("sendto", "fd"), 46: ("sendmsg", "fd"),
         307: ("sendmmsg", "fd"), 42: ("connect", "fd")}

libc = ctypes.CDLL(None, use_errno=True)
libc.ptrace.argtypes = (ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p)
libc.ptrace.restype = ctypes.c_long


def ptrace(request, tid, address=0, data=0):
    """False when the thread is gone, which one learns at any time."""
    return libc.ptrace(request, tid, address, data) != -1


def registers(tid):
    buffer = ctypes.create_string_buffer(REGISTERS * 8)
    if not ptrace(GETREGS, tid, 0, ctypes.addressof(buffer)):
        return None
    return struct.unpack(f"{REGISTERS}q", buffer.raw)


def event_message(tid):
    value = ctypes.c_ulong()
    ptrace(GETEVENTMSG, tid, 0, ctypes.addressof(value))
    return value.value


def text_at(tid, address):
    try:
        with open(f"/proc/{tid}/mem", "rb", buffering=0) as memory:
            memory.seek(address)
            return memory.read(256).partition(b"\0")[0].decode("latin-1")
    except (OSError, ValueError, OverflowError):
        return "?"


def target_of(tid, kind, values):
    if kind == "fd":
        try:
            return os.readlink(f"/proc/{tid}/fd/{values[RDI] & 0xFFFFFFFF}").partition(":[")[0]
        except OSError:
            return "?"
    return text_at(tid, values[RDI if kind == "path" else RSI]) if kind else ""


class Tracer:
    def __init__(self, pid, journal, label=None, number=0, action=None):
        self.pid, self.journal = pid, open(journal, "w", buffering=1)
        self.goal, self.action = (label, number), action
        self.labels, self.counts, self.children = {}, {}, {}
        self.early, self.failing = set(), {}  # seen before their parent told; tid: -errno

    def attach(self):
        for order, tid in enumerate(sorted(map(int, os.listdir(f"/proc/{self.pid}/task")))):
            self.labels[tid] = str(order)
            if not ptrace(SEIZE, tid, 0, OPTIONS) or not ptrace(INTERRUPT, tid):
                sys.exit(f"tracer: cannot attach to {tid}: {os.strerror(ctypes.get_errno())}")
        print("ready", flush=True)

    def run(self):
        while True:
            try:
                tid, status = os.waitpid(-1, WALL)
            except ChildProcessError:
                return
            if os.WIFSTOPPED(status):
                self.stopped(tid, os.WSTOPSIG(status), status >> 16)
            else:
                self.labels.pop(tid, None)

    def stopped(self, tid, number, event):
        if tid not in self.labels:
            self.early.add(tid)
        elif number == signal.SIGTRAP | 0x80:
            self.call(tid)
        elif event in (EVENT_FORK, EVENT_VFORK, EVENT_CLONE):
            self.born(tid, event_message(tid))
            ptrace(SYSCALL, tid)
        elif event == EVENT_STOP and number != signal.SIGTRAP:
            ptrace(LISTEN, tid)
        else:
            ptrace(SYSCALL, tid, 0, 0 if event else number)

    def born(self, parent, child):
        self.children[parent] = self.children.get(parent, 0) + 1
        self.labels[child] = f"{self.labels[parent]}.{self.children[parent]}"
        if child in self.early:
            self.early.discard(child)
            ptrace(SYSCALL, child)

    def call(self, tid):
        values = registers(tid)
        if tid in self.failing:
            ptrace(POKEUSER, tid, RAX * 8, self.failing.pop(tid) & 0xFFFFFFFFFFFFFFFF)
        elif values and values[RAX] == ENTERED and values[ORIG_RAX] in CALLS:
            self.counted(tid, values)
        ptrace(SYSCALL, tid)

    def counted(self, tid, values):
        name, kind = CALLS[values[ORIG_RAX]]
        flags = {"open": RSI, "openat": RDX}.get(name)
        if flags and not values[flags] & WRITING:
            return
        label = self.labels[tid]
        number = self.counts[label] = self.counts.get(label, 0) + 1
        hit = (label, number) == self.goal
        self.journal.write(json.dumps({"label": label, "number": number, "call": name, "hit": hit,
                                       "target": target_of(tid, kind, values)}) + "\n")
        if hit and self.action == "kill":
            for known in list(self.labels):
                try:
                    os.kill(known, signal.SIGKILL)
                except ProcessLookupError:
                    pass
        elif hit:
            self.failing[tid] = -getattr(errno, self.action)
            ptrace(POKEUSER, tid, ORIG_RAX * 8, 0xFFFFFFFFFFFFFFFF)


def main(arguments):
    goal = (arguments[2], int(arguments[3]), arguments[4]) if len(arguments) == 5 else ()
    tracer = Tracer(int(arguments[0]), arguments[1], *goal)
    tracer.attach()
    tracer.run()


if __name__ == "__main__":
    main(sys.argv[1:])
