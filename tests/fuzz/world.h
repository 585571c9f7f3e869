// SPDX-License-Identifier: Apache-2.0
// The world around a fuzz target: the real objects of the daemon run, and only what lies beyond
// them is played. A server answers each connection with bytes of the input in pieces that the input
// chooses, nothing sleeps, no program is started. Files are real, at their fixed paths: a target
// runs in the lab's sandbox (fuzz.py) and refuses to run outside.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Ends the process, as a finding, when what must hold does not.
void require(bool holds, const char* what);

// The bytes of one run, taken from the front. Parts end at a byte 0xFF.
struct fuzz_input {
    std::string_view left;

    unsigned byte();
    std::string part();
    [[nodiscard]] std::string rest() const { return std::string(left); }
};

// The target: what it does with one input, beginning with fresh settings and no open connection.
// What it leaves open is a finding; a restart of the daemon ends it early, without destructors.
void body(fuzz_input& in);

struct world_state {
    std::string answer;    // of every server and of the agent
    std::string pieces;    // each byte: how much the next receive gets at most; 0 is "not yet"
    bool resolves = true;  // the name servers know every host; else they send the answer
    size_t commands = 0;   // given to the shell in this run
};
extern world_state world;

void put_file(const char* path, std::string_view text);
std::string file_text(const char* path);
