// SPDX-License-Identifier: Apache-2.0
// What the user asks of an upgrade: start it, stop it. Control thread.
#pragma once

#include "upgrade/app_info.h"

// Marks the upgrade of an application as requested; the check cycle starts it. 0 (also without
// effect: no name, nothing newer), ERR_UPGRADE_PENDING or ERR_NO_MEMORY.
[[nodiscard]] int startPluginAppUpdate(const char* name);

// Stops an application's upgrade, whatever its state, and sets it idle. Always 0.
[[nodiscard]] int stopPluginAppUpdate(const char* name);

// 0 when free memory exceeds the package's size, and what running downloads may still take, by more
// than 4 MiB, else -1 (logged). The memory is then counted as taken by entry's download, if one is
// given. Takes the list's lock. Any thread.
[[nodiscard]] int check_memory(const app_info& remote, app_info* entry = nullptr);
