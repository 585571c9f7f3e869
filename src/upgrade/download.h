// SPDX-License-Identifier: Apache-2.0
// The download of one package into /tmp/dl_cloud, in a forked child that is polled twice a
// second for at most ten minutes. Methods alternate after each failure: the daemon's own client,
// wget.
#pragma once

#include <cstddef>

#include "upgrade/app_info.h"

constexpr size_t PACKAGE_PATH_SIZE = 512;

// Writes the path of a package into out (PACKAGE_PATH_SIZE bytes). version_name must be a plain
// file name: false for an empty one, one with a '/', "." and "..", or one too long.
[[nodiscard]] bool package_path(const char* version_name, char (*out)[PACKAGE_PATH_SIZE]);

// Thread body, detaches itself; argument is the app_info of the local entry.
void* download_run(void* entry);
