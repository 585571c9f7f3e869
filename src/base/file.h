// SPDX-License-Identifier: Apache-2.0
// Files that others may have a hand in: read without waiting and up to a limit, replaced whole or
// not at all. Nothing is written through a link. Results come with errno, which the caller, who
// knows what the file is for, logs. No state; any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "base/handles.h"

// What a file may hold, bytes; a longer one counts as unreadable (errno EFBIG).
constexpr size_t SETTINGS_FILE_LIMIT = size_t{256} * 1024;
constexpr size_t JSON_FILE_LIMIT = size_t{1024} * 1024;
constexpr size_t TEXT_FILE_LIMIT = size_t{1024} * 1024;

// Opens a regular file of at most limit bytes for reading. A link is followed; a pipe, a device or
// a folder in its place is refused (errno EINVAL) without being opened. None on failure.
[[nodiscard]] unique_fd open_regular(const char* path, size_t limit);
[[nodiscard]] file_ptr open_stream(const char* path, size_t limit);

// Opens such a file that only this user or root can have written: not by a link, with one name,
// writable by its owner alone (else errno EPERM).
[[nodiscard]] unique_fd open_trusted(const char* path, size_t limit);

// What keeps a file from being read, for people; error is what the functions above leave in errno.
[[nodiscard]] const char* why_unreadable(int error);

// Reads such a file whole into text. 0, or FAILED with text untouched. A file that grows while it
// is read counts as too long once it is beyond limit.
[[nodiscard]] int read_file(const char* path, size_t limit, std::string* text);

// The rest of an open file from where it stands, up to limit bytes. 0 or FAILED.
[[nodiscard]] int read_open_file(int fd, size_t limit, std::string* text);

// Writes all of it, calling again what a signal interrupts or the system takes in pieces. False,
// with errno, when not all was taken.
[[nodiscard]] bool write_whole(int fd, std::string_view text);

// Whether path is a folder, and no link to one, of root's or this user's: in a sticky folder nobody
// can put another one in its place.
[[nodiscard]] bool is_own_folder(const char* path);

// Puts body in place of what path holds, with this mode: written beside it as PATH.new, which
// nobody else's file is, synced, renamed, the folder synced. A reader sees the old text or the new
// one, never a part; a link in the path's place is replaced, not followed. 0, or FAILED with the
// old file untouched and nothing left beside it; only where the folder's sync fails, the new text
// is there and a power cut may undo it.
[[nodiscard]] int publish_file(const char* path, std::string_view body, mode_t mode);

// Removes what has this name: a file, a link itself, or a folder with all that it holds, none of it
// by following a link, whoever changes it meanwhile. Of folders nested too deeply the inner ones
// stay, under another name beside it. False, with errno, when the name is still taken.
[[nodiscard]] bool remove_whole(const char* path);
