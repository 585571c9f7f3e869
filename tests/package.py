# SPDX-License-Identifier: Apache-2.0
"""A package on a device: dpkg installs it over the sandbox's own files, its SysV script and the procd
script are used as the device's start would, by BusyBox, then it is upgraded, removed and purged. Debian's
own programs do it, on a machine where systemd does not run. ./dev check runs it for each package.

    python3 lab/sandbox.py --build build/package-amd64 -- /usr/bin/python3 -m tests.package
"""
import contextlib
import glob
import os
import subprocess

from lab.device import (AGENT_INI, DAEMON, ENVIRONMENT, INI, VERSION_LIST, Device, read_text, wait_until,
                        write_text)

PACKAGE, = glob.glob("/lab-build/cpack/*.deb")
LAYER = "/run/lab/layer"  # what is written to /usr
DPKG = ("/usr/bin/dpkg", "--force-depends", "--force-architecture")
PROGRAM = "/usr/sbin/pluginmgr"
SYSV = "/etc/init.d/pluginmgr"
STARTED = "/etc/rc?.d/S*pluginmgr"
UNITS = "/etc/systemd/system/"
UNIT = "pluginmgr.service"
ENABLED = UNITS + "multi-user.target.wants/" + UNIT
PROCD = "/lab-src/packaging/init/pluginmgr.procd"
NOT_RUNNING = 3
LOCAL_LINE = "# changed by the administrator\n"
# What OpenWrt brings; its procd starts the command of an instance.
RC_COMMON = """script=$1 action=$2
procd_open_instance() { :; }
procd_close_instance() { "$@"; }
procd_set_param() { [ "$1" != command ] || { shift; "$@" </dev/null >/dev/null 2>&1 & }; }
. "$script"
"${action}_service"
"""


def debian(*command):
    done = subprocess.run(command, env={"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=120)
    assert done.returncode == 0, done.stdout


def make_debian():
    """/usr is the machine's own, so it gets a layer to write to; dpkg's database is empty."""
    for folder in ("/up", "/work"):
        os.makedirs(LAYER + folder)
    debian("mount", "-t", "overlay", "-o",
           f"lowerdir=/usr,upperdir={LAYER}/up,workdir={LAYER}/work,userxattr", "lab", "/usr")
    with contextlib.suppress(FileNotFoundError):
        os.unlink("/usr/sbin/policy-rc.d")  # containers have one; it would not let the daemon be stopped
    write_text("/var/lib/dpkg/status", "")
    write_text("/etc/rc.common", RC_COMMON)


def upgrade(revision):
    """The same package as a later one."""
    tree = f"/run/lab/{revision}"
    debian("dpkg-deb", "-R", PACKAGE, tree)
    control = read_text(tree + "/DEBIAN/control")
    write_text(tree + "/DEBIAN/control", control.replace("\nVersion: ", f"\nVersion: {revision}:"))
    debian("dpkg-deb", "-b", tree, tree + ".deb")
    debian(*DPKG, "-i", tree + ".deb")


def starts():
    """Whether systemd starts it at boot, and SysV's init."""
    return os.path.lexists(ENABLED), bool(glob.glob(STARTED))


def service(*words):
    return subprocess.run(["/bin/sh", *words], env=ENVIRONMENT, timeout=60).returncode


def answers(device):
    return device.get(80000, timeout=2)  # what is sent before the port is open is lost


def check_install():
    debian(*DPKG, "-i", PACKAGE)
    assert starts() == (True, True)


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
    assert os.readlink(DAEMON) == PROGRAM


def check_procd(device):
    os.unlink(DAEMON)
    assert service("/etc/rc.common", PROCD, "start") == 0
    wait_until(lambda: answers(device), 30, "the start by procd")
    assert subprocess.run(["pluginctl", "status"]).returncode == 0


def check_unit():
    """Where systemd is; the path of the program it starts is there by now."""
    if os.path.exists("/usr/bin/systemd-analyze"):
        subprocess.run(["/usr/bin/systemd-analyze", "verify", "--man=no",
                        "/lib/systemd/system/" + UNIT], check=True)


def check_upgrades(device):
    """The daemon runs on; what starts at boot stays the administrator's choice."""
    pid = device.pid()
    upgrade(1)
    assert starts() == (True, True)
    os.unlink(ENABLED)
    debian("update-rc.d", "pluginmgr", "disable")
    write_text(SYSV, read_text(SYSV) + LOCAL_LINE)
    upgrade(2)
    assert starts() == (False, False) and device.pid() == pid and service(SYSV, "status") == 0
    assert read_text(SYSV).endswith(LOCAL_LINE)


def check_removal():
    """What stays behind starts nothing, and does not keep the package from coming back."""
    debian(*DPKG, "-r", "pluginmgr")
    assert service(SYSV, "status") == NOT_RUNNING
    assert not os.path.exists(PROGRAM) and os.readlink(UNITS + UNIT) == "/dev/null"
    assert os.path.exists(INI) and read_text(SYSV).endswith(LOCAL_LINE)
    assert service(SYSV, "start") == 0 and service(SYSV, "status") == NOT_RUNNING
    debian(*DPKG, "-i", PACKAGE)
    assert starts() == (False, False) and not os.path.lexists(UNITS + UNIT)
    assert read_text(SYSV).endswith(LOCAL_LINE)


def check_purge():
    """The package's own goes, secrets in logs included; what is also the firmware's and the agents' stays."""
    write_text(AGENT_INI, "")
    logs = glob.glob("/var/log/plugin_*")
    debian(*DPKG, "-P", "pluginmgr")
    left = [path for path in (INI, *logs) if os.path.exists(path)]
    left += [path for folder in ("/etc", "/var/lib/systemd")
             for path in glob.glob(folder + "/**/*pluginmgr*", recursive=True)]
    assert logs and not left, left
    assert os.path.exists(AGENT_INI) and os.path.exists(VERSION_LIST)


def main():
    device = Device()
    device.reset(agents=())
    os.unlink(DAEMON)  # the scripts put the package's there
    make_debian()
    try:
        check_install()
        check_sysv(device)
        check_procd(device)
        check_unit()
        check_upgrades(device)
        check_removal()
        check_purge()
    finally:
        device.kill_all()


if __name__ == "__main__":
    main()
