// SPDX-License-Identifier: Apache-2.0
// One line of a log on its way out: "[MM/DD hh:mm:ss.uuuuuu] name(line) - tag message\n". A line is
// built whole before anything is written, so that a file holds all of it or nothing. Owns the
// offset of local time, kept in one atomic word. Any thread; what a signal handler may call says
// so.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string_view>

// A longer message is cut; room for a status document of 4 KB with some to spare.
constexpr size_t LOG_LINE_SIZE = 8192;

struct log_line {
    char text[LOG_LINE_SIZE] = {};
    size_t used = 0;
};

// Where a line comes from. Prefix and function are joined by a blank, either may be missing; with
// neither the line shows no name, no number and no tag.
struct line_origin {
    const char* prefix = nullptr;    // of the component
    const char* function = nullptr;  // shown from after its last '/'
    int line = 0;                    // 0 shows no number
    const char* tag = "";
};

// Makes this process the one that looks the time zone up, and does so once.
void init_local_time();
// Looks the offset of local time up again, once a second at most, so that a changed time zone shows
// (/etc/localtime; with musl, which reads it once, at the next start). Does nothing in a forked
// child, where the C library's time-zone lock may be held for ever by a thread that did not come
// along.
void update_local_time();

// The time stamp and the origin. Async-signal-safe.
void begin_line(log_line& line, const line_origin& origin);
// Appends; what does not fit is cut. Async-signal-safe.
void add_text(log_line& line, std::string_view text);
// The same from a printf format. Not for signal handlers.
void add_format_v(log_line& line, const char* format, va_list args)
    __attribute__((format(printf, 2, 0)));
// Appends the newline, for which a byte is always left, and returns the line. Async-signal-safe.
std::string_view end_line(log_line& line);
