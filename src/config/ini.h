// SPDX-License-Identifier: Apache-2.0
// Settings files: sections, key=value lines, '#' comments, values continued with a final '+'.
// Lines hold at most 512 characters, and so do values. Nothing is cached: every call opens and
// scans its file, a regular one of at most SETTINGS_FILE_LIMIT (base/file.h); that another is not
// read is an error line. Any thread; the calls wait for each other.
//
// Files are rewritten in place. The room for a longer text is reserved first, then the whole text
// goes out in one write, covering a longer old one with empty lines, then the file is cut and
// flushed. A process killed between any two of these steps, or a full disk, leaves the old entries
// or the new ones. Within the one write it is the kernel's to keep a text of up to a page whole
// (settings are far shorter); a power cut before the flush is the file system's.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

constexpr size_t INI_MAX_LINE = 512;

constexpr int INI_NO_SECTION = -1;
constexpr int INI_NO_KEY = -2;       // end of file or the next section came first
constexpr int INI_NOT_OPENED = -10;  // also: no regular file, or more than SETTINGS_FILE_LIMIT
constexpr int INI_NOT_CREATED = -11;
constexpr int INI_READ_ERROR = -12;
constexpr int INI_WRITE_ERROR = -13;
constexpr int INI_MALFORMED = -14;  // a broken section head or key line
constexpr int INI_TOO_LONG = -22;   // a continued value of more than 512 characters
constexpr int INI_NO_ROOM = -23;    // a value longer than its field

struct ini_name {
    char text[64];
};

// Copies a value into out (size bytes). A key without a value gives 0 and an empty text. A value
// that does not fit is an error, which is logged, and never a part of it. On an error out is left
// as it was. 0 or an INI code.
[[nodiscard]] int ini_get(const char* path, std::string_view section, std::string_view key,
                          char* out, size_t size);

// The same from a text in hand.
[[nodiscard]] int ini_get_from(std::string_view text, std::string_view section,
                               std::string_view key, char* out, size_t size);

// Whether a line begins with the key, in whatever section and behind whatever broken lines; true
// too for a file that is there and cannot be read.
[[nodiscard]] bool ini_mentions(const char* path, std::string_view key);

// Writes one value: replaces the key's line, or inserts it right after the section's head, or
// appends section and key to the file, which is created when missing. A value that would not read
// back as it is (with a line end, too long for its line) is refused with INI_WRITE_ERROR; only
// blanks around a value are lost silently. 0 or an INI code; after an error, which is logged, the
// file is as it was.
int ini_set(const char* path, const char* section, const char* key, const char* value);

// Copies names in file order into names, as many as fit (each cut at 63 characters). Returns how
// many were copied, or an INI code.
[[nodiscard]] int ini_list_sections(const char* path, std::span<ini_name> names);
[[nodiscard]] int ini_list_keys(const char* path, std::string_view section,
                                std::span<ini_name> names);

// Puts text in place of all that a file holds, as carefully as ini_set; a missing file is created.
// A reader sees the old text or the new one, with empty lines behind it at most. 0 or an INI code.
[[nodiscard]] int replace_file(const char* path, std::string_view text);

// The same with the text of another, regular file.
[[nodiscard]] int copy_file(const char* from, const char* to);
