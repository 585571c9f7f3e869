#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Runs a program inside a throw-away device, without root and without touching the machine.

    python3 lab/sandbox.py [--out DIR] [--build DIR] [--sysroot DIR] -- PROGRAM [ARGS...]

Inside, the program is user 0 of a machine of its own (user, process, network, ipc and host
name spaces; loopback is up, nothing else is reachable):

    /bin, /sbin          BusyBox only: what the daemon finds through PATH=/bin:/sbin
    /usr, /lib*          the host's, read-only (python3, openssl, GNU wget, nginx ...)
    /etc /var /tmp /run  empty and writable, gone afterwards
    /dev                 the usual devices; rkflash0p4 is written by lab.device
    /lab-src             this checkout, read-only; `import lab...` works
    /lab-build           --build, read-only: pluginmgr and pluginctl
    /lab-out             --out, writable: the only thing that survives
    /lab-sysroot         --sysroot, read-only: the libraries of a --build for another processor,
                         which lab.emulated runs

The exit status is the program's. Several sandboxes run side by side without meeting.
"""
# Only os, sys, shutil and subprocess here: when this file is run by its path, Python finds
# lab/platform where another standard module would look for its own `platform`.
import os
import shutil
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUSYBOX = "/usr/bin/busybox"
EMPTY_FOLDERS = ("/bin", "/etc/ssl/certs", "/root", "/run/lab/bin", "/run/lab/tmp", "/tmp",
                 "/var/run", "/var/log", "/var/lib", "/var/bin", "/var/tmp",
                 "/var/config/cloud", "/lab-out")
ETC = {
    "passwd": "root:x:0:0:root:/root:/bin/sh\nnobody:x:65534:65534:nobody:/:/bin/false\n",
    "group": "root:x:0:\nnogroup:x:65534:\n",
    "nsswitch.conf": "passwd: files\ngroup: files\nhosts: files dns\n",
    "resolv.conf": "nameserver 127.0.0.1\n",
    "hosts": "127.0.0.1 localhost\n",
    "host.conf": "multi on\n",
}
HOST_FILES = ("/etc/ld.so.cache", "/etc/ssl/openssl.cnf", "/etc/alternatives")
ENVIRONMENT = {
    "PATH": "/run/lab/bin:/bin:/sbin:/usr/bin:/usr/sbin",
    "HOME": "/root",
    "USER": "root",
    "LANG": "C.UTF-8",
    "TMPDIR": "/run/lab/tmp",  # the device's /tmp is wiped between tests
    "PYTHONPATH": "/lab-src",
    "PYTHONDONTWRITEBYTECODE": "1",
    "PYTHONUNBUFFERED": "1",
    "PYTEST_ADDOPTS": "-p no:cacheprovider",
}
KEPT_VARIABLES = ("TERM", "COLUMNS", "LINES", "NO_COLOR", "CI", "ASAN_OPTIONS", "TSAN_OPTIONS")


def memory_file(text):
    """A descriptor that the sandbox copies a file's content from."""
    descriptor = os.memfd_create("lab")
    os.write(descriptor, text.encode())
    os.lseek(descriptor, 0, os.SEEK_SET)
    os.set_inheritable(descriptor, True)
    return str(descriptor)


def isolation():
    return ["--unshare-user", "--uid", "0", "--gid", "0", "--unshare-pid", "--unshare-net",
            "--unshare-ipc", "--unshare-uts", "--hostname", "device", "--cap-add", "ALL",
            "--die-with-parent", "--proc", "/proc", "--dev", "/dev"]


def system_folders():
    """/usr and what leads into it; a library folder is a link on merged systems, else bound."""
    arguments = ["--ro-bind", "/usr", "/usr"]
    for folder in ("/lib", "/lib32", "/lib64", "/libx32"):
        if os.path.islink(folder):
            arguments += ["--symlink", os.readlink(folder), folder]
        elif os.path.isdir(folder):
            arguments += ["--ro-bind", folder, folder]
    for folder in EMPTY_FOLDERS:
        arguments += ["--perms", "0755", "--dir", folder]
    return arguments


def device_files():
    """BusyBox under every one of its names, and /etc."""
    arguments = ["--symlink", "bin", "/sbin"]
    for name in subprocess.check_output([BUSYBOX, "--list"], text=True).split():
        arguments += ["--symlink", BUSYBOX, "/bin/" + name]
    for name, text in ETC.items():
        arguments += ["--perms", "0644", "--file", memory_file(text), "/etc/" + name]
    for path in filter(os.path.exists, HOST_FILES):
        arguments += ["--ro-bind", path, path]
    return arguments


def lab_folders(out, build, sysroot):
    arguments = ["--ro-bind", ROOT, "/lab-src"]
    if os.path.isdir(build):
        arguments += ["--ro-bind", build, "/lab-build"]
    if out:
        os.makedirs(out, exist_ok=True)
        arguments += ["--bind", out, "/lab-out"]
    if sysroot:
        arguments += ["--ro-bind", sysroot, "/lab-sysroot",
                      "--setenv", "QEMU_LD_PREFIX", "/lab-sysroot"]
    return arguments + ["--chdir", "/lab-src"]


def command(program, out=None, build=None, sysroot=None):
    """The full bwrap command line for a program (a list); descriptors in it are inheritable."""
    build = build or os.path.join(ROOT, "build", "release")
    return (["bwrap"] + isolation() + system_folders() + device_files()
            + lab_folders(out and os.path.abspath(out), os.path.abspath(build), sysroot)
            + ["--"] + list(program))


def environment():
    kept = {name: os.environ[name] for name in KEPT_VARIABLES if name in os.environ}
    return ENVIRONMENT | kept


def parse(arguments):
    """(options, program); exits with the manual when the line makes no sense."""
    options = {}
    while arguments and arguments[0] in ("--out", "--build", "--sysroot") and len(arguments) > 1:
        options[arguments[0][2:]] = arguments[1]
        arguments = arguments[2:]
    if len(arguments) < 2 or arguments[0] != "--":
        sys.exit(__doc__)
    return options, arguments[1:]


def main():
    options, program = parse(sys.argv[1:])
    if not shutil.which("bwrap") or not os.path.exists(BUSYBOX):
        sys.exit("sandbox: bubblewrap and busybox-static are needed; ./dev deps installs them")
    os.execvpe("bwrap", command(program, **options), environment())


if __name__ == "__main__":
    main()
