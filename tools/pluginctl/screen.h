// SPDX-License-Identifier: Apache-2.0
// What moves on the terminal. On a terminal one line is drawn over and over; elsewhere each change
// of state is one plain line and no control character is written.
#pragma once

#include <string>
#include <string_view>

struct screen {
    bool quiet = false;  // writes nothing at all
    bool terminal = false;
    size_t width = 80;
    unsigned turn = 0;  // of the spinner
    std::string last_line;
};

// A screen for standard output as it is.
[[nodiscard]] screen open_screen(bool quiet);

// One state: line is what a log shows, written when it changed; on a terminal it is drawn with a
// spinner. done and total make it a bar: bytes, or a negative done when nobody knows.
void show_state(screen* out, const std::string& line, long long done, long long total);

// A line that stays, above whatever is drawn next.
void show_line(screen* out, const std::string& line);

// Wipes the drawn line.
void clear_screen_line(screen* out);
