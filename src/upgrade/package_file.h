// SPDX-License-Identifier: Apache-2.0
// Where packages lie and unpack, and what makes sure that nobody but the daemon writes there: the
// bytes that were verified are the bytes that are installed. No state; download and install
// threads.
#pragma once

#include <cstddef>

#include "base/handles.h"

constexpr const char* DOWNLOAD_FOLDER = "/tmp/dl_cloud/";
constexpr const char* UNPACK_FOLDER = "/tmp/up_cloud";
constexpr size_t PACKAGE_PATH_SIZE = 512;

// Writes the path of a package into out (PACKAGE_PATH_SIZE bytes). False, with out empty, when
// version_name is missing or no file name (base/name).
[[nodiscard]] bool package_path(const char* version_name, char (*out)[PACKAGE_PATH_SIZE]);

// Makes path a folder in which nobody else can write. What somebody else has there is removed, with
// a log line, and the folder then private; a link of our own may lead to another folder of ours.
// False, logged, when that cannot be had. That nobody replaces it later is up to the sticky bit of
// the folder around it.
[[nodiscard]] bool own_folder(const char* path);

// Removes, with a log line, what is a link or somebody else's.
void drop_foreign(const char* path);

// Opens a package, which keeps its name for its installer. A download of the same name makes a new
// file, so the open one does not change any more. None, logged, the name gone, when it is no plain
// file, is not ours alone to write, or still open for writing.
[[nodiscard]] unique_fd take_package(const char* path);

// Removes the name of an open package, unless a newer one has it by now. Nothing for -1.
void remove_package(int package, const char* path);
