# SPDX-License-Identifier: Apache-2.0
"""Numbers the side-effecting system calls of a running process and can end or fail any one of them.

    python3 -m lab.torture.tracer PID JOURNAL [LABEL NUMBER kill|end|half|ERRNO-NAME]

Every thread and every program that the process starts is followed. Each has a label: the threads
found at the start are 0, 1, 2 ... by age; what N starts is N.1, N.2 ... A point is a label and the
number of the call among the side-effecting ones of that label, so a point means the same in every
run, however threads take turns. Lines written to a log are numbered apart, as "LABEL log": they are
left out when two threads meet. JOURNAL gets one JSON object a line for each such call.

kill ends the process and all that it started before the call is made, as a pulled plug would; end
does so to the one that makes the call alone. An errno name lets this one call fail without being
made; half lets a write take half of its bytes.
"ready" is printed once all is attached; the output ends when all that was traced has ended."""
import ctypes
import errno
import json
import os
import signal
import struct
import subprocess
import sys

SEIZE, INTERRUPT, LISTEN, GETEVENTMSG = 0x4206, 0x4207, 0x4208, 0x4201
GETREGS, POKEUSER, SYSCALL = 12, 6, 24
OPTIONS = 1 | 2 | 4 | 8 | 16  # TRACESYSGOOD, FORK, VFORK, CLONE, EXEC
EVENT_FORK, EVENT_VFORK, EVENT_CLONE, EVENT_STOP = 1, 2, 3, 128
WALL = 0x40000000
RAX, RDX, RSI, RDI, ORIG_RAX, REGISTERS = 10, 12, 13, 14, 15, 27  # of user_regs_struct, x86-64
ENTERED = -errno.ENOSYS  # RAX when a call is about to be made
WRITING = os.O_WRONLY | os.O_RDWR | os.O_CREAT | os.O_TRUNC
LOGS = "/var/log/plugin_"

# by what their target is found with: a descriptor or a path, in the argument of this register
CALLS = {
    ("fd", RDI): {1: "write", 18: "pwrite", 20: "writev", 40: "sendfile", 42: "connect", 44: "sendto",
                  46: "sendmsg", 49: "bind", 74: "fsync", 75: "fdatasync", 77: "ftruncate",
                  91: "fchmod", 93: "fchown", 285: "fallocate", 296: "pwritev", 306: "syncfs",
                  307: "sendmmsg", 328: "pwritev2"},
    ("fd", RDX): {275: "splice", 326: "copy_file_range"},
    ("path", RDI): {2: "open", 76: "truncate", 82: "rename", 83: "mkdir", 84: "rmdir", 85: "creat",
                    87: "unlink", 90: "chmod", 92: "chown", 94: "lchown", 133: "mknod"},
    ("path", RSI): {86: "link", 88: "symlink", 257: "openat", 258: "mkdirat", 259: "mknodat",
                    260: "fchownat", 263: "unlinkat", 264: "renameat", 265: "linkat",
                    266: "symlinkat", 268: "fchmodat", 316: "renameat2", 437: "openat2",
                    280: "utimensat", 452: "fchmodat2"},
    ("words", RSI): {59: "execve"},
    ("words", RDX): {322: "execveat"},
    ("", 0): {56: "clone", 57: "fork", 58: "vfork", 62: "kill", 162: "sync", 435: "clone3"},
}
FOUND_BY = {number: (name, *way) for way, names in CALLS.items() for number, name in names.items()}
LONGEST, MOST_WORDS = 256, 16  # of a text, of a command line

libc = ctypes.CDLL(None, use_errno=True)
libc.ptrace.argtypes = (ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p)
libc.ptrace.restype = ctypes.c_long


def ptrace(request, tid, address=0, data=0):
    """False when the thread is gone, which one learns at any time."""
    return libc.ptrace(request, tid, address, data) != -1


def is_possible():
    """Whether the kernel lets one program trace another."""
    child = subprocess.Popen(["/bin/sleep", "60"])
    allowed = ptrace(SEIZE, child.pid)
    child.kill()
    child.wait()
    return allowed


def registers(tid):
    buffer = ctypes.create_string_buffer(REGISTERS * 8)
    if not ptrace(GETREGS, tid, 0, ctypes.addressof(buffer)):
        return None
    return struct.unpack(f"{REGISTERS}q", buffer.raw)


def kill(tid):
    try:
        os.kill(tid, signal.SIGKILL)
    except ProcessLookupError:
        pass


def event_message(tid):
    value = ctypes.c_ulong()
    ptrace(GETEVENTMSG, tid, 0, ctypes.addressof(value))
    return value.value


def bytes_at(tid, address, size):
    try:
        with open(f"/proc/{tid}/mem", "rb", buffering=0) as memory:
            memory.seek(address)
            return memory.read(size)
    except (OSError, ValueError, OverflowError):
        return b""


def text_at(tid, address):
    return bytes_at(tid, address, LONGEST).partition(b"\0")[0].decode("latin-1")


def words_at(tid, address):
    """A command line, its words joined by blanks."""
    data = bytes_at(tid, address, MOST_WORDS * 8)
    words = struct.unpack(f"{len(data) // 8}q", data[:len(data) // 8 * 8])
    return " ".join(text_at(tid, word) for word in words[:(words + (0,)).index(0)])


def target_of(tid, kind, value):
    if kind == "fd":
        try:
            return os.readlink(f"/proc/{tid}/fd/{value & 0xFFFFFFFF}").partition(":[")[0]
        except OSError:
            return "?"
    return {"path": text_at, "words": words_at}[kind](tid, value) if kind else ""


def opens_for_writing(tid, name, values):
    flags = values[{"open": RSI}.get(name, RDX)]
    if name == "openat2":
        flags = int.from_bytes(bytes_at(tid, flags, 8), "little")
    return flags & WRITING


class Tracer:
    def __init__(self, pid, journal, label=None, number=0, action=None):
        self.pid, self.journal = pid, open(journal, "w", buffering=1)
        self.goal, self.action = (label, number), action
        self.labels, self.counts, self.children = {}, {}, {}
        self.early, self.failing = set(), {}  # seen before their parent told; tid: -errno
        self.dying = False

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
        if self.dying:
            kill(tid)  # born when all others were killed
        elif tid not in self.labels:
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
        elif values and values[RAX] == ENTERED and values[ORIG_RAX] in FOUND_BY:
            self.counted(tid, values)
        ptrace(SYSCALL, tid)

    def counted(self, tid, values):
        name, kind, register = FOUND_BY[values[ORIG_RAX]]
        if name in ("open", "openat", "openat2") and not opens_for_writing(tid, name, values):
            return
        target = target_of(tid, kind, values[register])
        label = self.labels[tid]
        if name == "write" and target.startswith(LOGS):
            label += " log"
        number = self.counts[label] = self.counts.get(label, 0) + 1
        hit = (label, number) == self.goal
        self.journal.write(json.dumps({"label": label, "number": number, "call": name, "hit": hit,
                                       "target": target}) + "\n")
        if hit:
            self.strike(tid, values)

    def strike(self, tid, values):
        if self.action == "kill":
            self.dying = True
            for known in [*self.labels, *self.early]:
                kill(known)
        elif self.action == "end":
            kill(tid)
        elif self.action == "half":
            ptrace(POKEUSER, tid, RDX * 8, max(values[RDX] // 2, 1))
        else:
            self.failing[tid] = -getattr(errno, self.action)
            ptrace(POKEUSER, tid, ORIG_RAX * 8, 0xFFFFFFFFFFFFFFFF)


def main(arguments):
    goal = (arguments[2], int(arguments[3]), arguments[4]) if len(arguments) == 5 else ()
    tracer = Tracer(int(arguments[0]), arguments[1], *goal)
    tracer.attach()
    tracer.run()


if __name__ == "__main__":
    main(sys.argv[1:])
