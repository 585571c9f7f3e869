// SPDX-License-Identifier: Apache-2.0
// The installation of one downloaded package: signature, install script, result files. Owns
// /var/run/cloud_install.sh and the busy word; one install at a time.
#pragma once

#include <atomic>

#include "upgrade/app_info.h"

constexpr const char* INSTALL_SCRIPT = "/var/run/cloud_install.sh";

// 1 while an install thread runs. An install that is cancelled leaves it set until the daemon
// restarts, on purpose.
extern std::atomic<int> upgrade_busy;

// Thread body, detaches itself; argument is the app_info of the local entry. Can be cancelled
// only while the install script runs.
void* upgrade_process(void* entry);

// What the install script does, without its first line.
extern const char INSTALL_SCRIPT_BODY[];

// Writes the install script. 0, or -1 with the reason logged.
int generateInstallShell(const char* path);
