# SPDX-License-Identifier: Apache-2.0
"""The values that the daemon is built with, read from the defaults of the build."""
import re

SOURCE = "/lab-src/cmake/deployment.cmake"


def _read(path):
    with open(path) as file:
        return dict(re.findall(r'set\(PLUGINMGR_(\w+)\s+"([^"]*)"', file.read()))


VALUES = _read(SOURCE)
VERSION = VALUES["VERSION"]
API_SERVER = VALUES["API_SERVER"]
ACCOUNTS_SERVER = VALUES["ACCOUNTS_SERVER"]
PBX_SERVER = VALUES["PBX_SERVER"]
DOWNLOAD_SERVER = "dl." + API_SERVER.partition(".")[2]
API_SIGN_KEY = VALUES["API_SIGN_KEY"].encode()
UPGRADE_SIGN_KEY = VALUES["UPGRADE_SIGN_KEY"].encode()
OAUTH_CLIENT = VALUES["OAUTH_CLIENT"]
