# SPDX-License-Identifier: Apache-2.0
"""Builds and signs plug-in packages: a tar.gz with an install.sh, as the platform offers them."""
import dataclasses
import hashlib
import hmac
import io
import os
import tarfile

from .deployment import UPGRADE_SIGN_KEY

# What install.sh leaves in up_stat; only the size of the file counts.
RESULTS = {"ok": "0123456789", "restart": "22", "fail": "1"}
LAYOUTS = {"root": "", "folder": "tmpCloudPkg/", "none": "unused/"}
INSTALL = """#!/bin/sh
# Written by the lab; runs in the folder that it was unpacked to.
{commands}
sleep {slow}
{moves}
printf '{result}' > /tmp/up_cloud/up_stat
printf '%s\\n' '{message}' > /tmp/up_cloud/up_msg
"""


@dataclasses.dataclass
class Package:
    name: str        # application
    version: str     # that it brings
    file_name: str   # "version_name" of the offer
    data: bytes
    signature: str


def sign(data, version, key=UPGRADE_SIGN_KEY):
    """The signature of a package: HMAC-SHA1 over its MD5 in hex and the offered version."""
    message = hashlib.md5(data).hexdigest() + version
    return hmac.new(key, message.encode(), hashlib.sha1).hexdigest()


def build(name, version, result="ok", message="", files=None, layout="root", slow=0, padding=0,
          commands="", cut=None):
    """A signed Package.

    result    ok (up_stat of 10 bytes), restart (of 2), fail (of 1) or None (no up_stat)
    message   first line of up_msg; default: the result's name
    files     {path on the device: bytes, or path of a file to take}; installed mode 0755
    layout    where install.sh lies: root, folder (tmpCloudPkg) or none (missing)
    slow      seconds that install.sh sleeps
    padding   bytes of noise, to make the package large
    commands  shell lines that install.sh begins with
    cut       the archive ends after so many bytes, and is signed like that"""
    contents = {path: _bytes(source) for path, source in (files or {}).items()}
    script = _script(contents, result, message or result or "", slow, commands)
    members = {os.path.basename(path): data for path, data in contents.items()}
    if layout != "none":
        members["install.sh"] = script
    if padding:
        members["padding"] = os.urandom(padding)
    data = _archive({LAYOUTS[layout] + member: body for member, body in members.items()}
                    or {"empty": b""})[:cut]
    return Package(name, version, f"{name}-{version}.tar.gz", data, sign(data, version))


def _bytes(source):
    if isinstance(source, bytes):
        return source
    with open(source, "rb") as file:
        return file.read()


def _script(contents, result, message, slow, commands):
    # A move, not a copy: the old file may be a program that runs.
    moves = "\n".join(f"mv -f {os.path.basename(path)} {path}" for path in contents)
    script = INSTALL.format(commands=commands, slow=slow, moves=moves,
                            result=RESULTS.get(result, ""), message=message)
    if result is None:
        script = "\n".join(line for line in script.splitlines() if "up_stat" not in line)
    return script.encode()


def _archive(members):
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w:gz", compresslevel=1) as archive:
        for name, data in members.items():
            entry = tarfile.TarInfo(name)
            entry.size, entry.mode = len(data), 0o755
            archive.addfile(entry, io.BytesIO(data))
    return buffer.getvalue()
