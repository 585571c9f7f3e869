// SPDX-License-Identifier: Apache-2.0
// The world around a fuzz target: the real objects of the daemon run, and only what lies beyond
// them is played. Fixed paths lead into a private folder, a server answers each connection with
// bytes of the input in pieces that the input chooses, nothing sleeps, no program is started.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// Ends the process, as a finding, when what must hold does not.
void require(bool holds, const char* what);

// The bytes of one run, taken from the front. Parts end at a byte 0xFF.
class fuzz_input {
  public:
    fuzz_input(const uint8_t* data, size_t size)
        : left_(reinterpret_cast<const char*>(data), size) {}
    unsigned byte();
    std::string part();
    [[nodiscard]] std::string rest() const { return std::string(left_); }

  private:
    std::string_view left_;
};

struct world_state {
    std::string answer;    // of every server and of the agent
    std::string pieces;    // each byte: how much the next receive gets at most; 0 is "not yet"
    bool honest = true;    // a DNS reply carries the id of its query
    bool resolves = true;  // the system's resolver knows every host
    size_t commands = 0;   // given to the shell in this run
};
extern world_state world;

// Runs body with fresh settings and no open connection. What it leaves open is a finding; a
// restart of the daemon ends it early.
void run_once(void (*body)(fuzz_input& in), const uint8_t* data, size_t size);

// Where a fixed path is in the private folder, and files there.
std::string inside(const char* path);
void put_file(const char* path, std::string_view text);
std::string file_text(const char* path);

#define FUZZ_TARGET(body)                                                     \
    extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { \
        run_once(body, data, size);                                           \
        return 0;                                                             \
    }
