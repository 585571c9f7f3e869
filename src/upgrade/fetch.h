// SPDX-License-Identifier: Apache-2.0
// A download by the daemon's own client, as a process: the same program, started anew under
// another name. A mere copy of the daemon would hold for ever whatever locks its other threads
// had just taken (clock, resolver, TLS library) and might hang on one. What the client needs of the
// settings stands on the command line, since the file may be in the middle of a change.
#pragma once

#include <cstddef>
#include <string>

constexpr size_t FETCH_WORDS = 11;

// Made before the fork, for it takes memory. Not to be copied: arguments point into words.
struct fetch_command {
    std::string words[FETCH_WORDS];
    char* arguments[FETCH_WORDS + 1] = {};
};

// A download of url into target, of which at most limit bytes are kept. Any thread.
void build_fetch(const char* url, const char* target, long long limit, fetch_command* command);

// Becomes that download. In the forked child; async-signal-safe. Returns when that fails.
void exec_fetch(const fetch_command& command);

// Whether a process is a download by what it was started with. Main thread.
[[nodiscard]] bool is_fetch(int count, char** arguments);

// What it does then. Its exit status, always 127: the daemon judges by the file.
int run_fetch(char** arguments);
