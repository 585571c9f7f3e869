// SPDX-License-Identifier: Apache-2.0
// Small text files that are rewritten in place, keeping their inode. Works on open descriptors,
// calls again what a signal interrupts, keeps no state; one thread at a time on a file.
#pragma once

#include <string>
#include <string_view>

// A regular file's whole text; empty for anything that has no length. False on a read error.
[[nodiscard]] bool read_text(int fd, std::string* text);

// Writes at the file's beginning. False when not all of it was taken.
[[nodiscard]] bool write_text(int fd, std::string_view text);

// Puts text in place of old, which is all that the file holds, and flushes it. The room for a
// longer text is reserved before a byte of the old one is overwritten; a shorter one first covers
// all of the old one with line ends, in the same write, and only then is the file cut. So at every
// instant between two system calls the file holds the old lines or the new ones, with empty lines
// behind them at most. On failure, false, the old text is put back.
[[nodiscard]] bool overwrite(int fd, const std::string& old, const std::string& text);
