# SPDX-License-Identifier: Apache-2.0
"""A package on a device: unpacked over the sandbox's own files, then its SysV script and the procd
script are used as the device's start would, by BusyBox. ./dev check runs it for each package.

    python3 lab/sandbox.py --build build/package-amd64 -- /usr/bin/python3 -m tests.package
"""
import glob
import os
import shutil
import subprocess

from lab.device import DAEMON, ENVIRONMENT, Device, wait_until, write_text

ROOT = "/run/lab/package"
SYSV = "/etc/init.d/pluginmgr"
PROCD = "/lab-src/packaging/init/pluginmgr.procd"
NOT_RUNNING = 3
# What OpenWrt brings; its procd starts the command of an instance.
RC_COMMON = """script=$1 action=$2
procd_open_instance() { :; }
procd_close_instance() { "$@"; }
procd_set_param() { [ "$1" != command ] || { shift; "$@" </dev/null >/dev/null 2>&1 & }; }
. "$script"
"${action}_service"
"""


def install():
    package, = glob.glob("/lab-build/cpack/*.deb")
    subprocess.run(["dpkg-deb", "-x", package, ROOT], check=True, env={"PATH": "/usr/bin"})
    subprocess.run(["mount", "-t", "overlay", "-o", f"lowerdir={ROOT}/usr:/usr", "lab", "/usr"],
                   check=True)
    shutil.copytree(ROOT + "/etc", "/etc", dirs_exist_ok=True)
    write_text("/etc/rc.common", RC_COMMON)


def service(*words):
    return subprocess.run(["/bin/sh", *words], env=ENVIRONMENT, timeout=60).returncode


def answers(device):
    return device.get(80000, timeout=2)  # what is sent before the port is open is lost


def check_sysv(device):
    assert service(SYSV, "status") == NOT_RUNNING
    assert service(SYSV, "start") == 0
    wait_until(lambda: answers(device), 30, "the first start")
    pid = device.pid()
    assert service(SYSV, "status") == service(SYSV, "start") == 0
    assert service(SYSV, "restart") == 0
    wait_until(lambda: device.pid() not in (None, pid) and answers(device), 30, "the restart")
    assert service(SYSV, "stop") == 0
    assert service(SYSV, "status") == NOT_RUNNING


def check_procd(device):
    os.unlink(DAEMON)
    assert service("/etc/rc.common", PROCD, "start") == 0
    wait_until(lambda: answers(device), 30, "the start by procd")


def check_unit():
    """Where systemd is; the path of the program it starts is there by now."""
    if os.path.exists("/usr/bin/systemd-analyze"):
        subprocess.run(["/usr/bin/systemd-analyze", "verify", "--man=no",
                        ROOT + "/lib/systemd/system/pluginmgr.service"], check=True)


def main():
    install()
    device = Device()
    device.reset(agents=())
    os.unlink(DAEMON)  # the scripts put the package's there
    try:
        check_sysv(device)
        assert os.readlink(DAEMON) == "/usr/sbin/pluginmgr"
        check_procd(device)
        check_unit()
        assert subprocess.run(["pluginctl", "status"]).returncode == 0
    finally:
        device.kill_all()


if __name__ == "__main__":
    main()
