// SPDX-License-Identifier: Apache-2.0
// The terminal's end of the daemon's Unix socket, which is made for the cloud agent. A question
// comes from a socket of its own in a folder under /tmp, made for it and removed afterwards.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "client.h"

// The longest text of a message, bytes.
constexpr size_t MAX_MESSAGE = 236;

struct agent_answer {
    uint32_t type = 0;
    std::string text;
};

// Sends one message that has no answer. ANSWERED when the daemon's socket took it, else REFUSED
// with the reason in errno.
[[nodiscard]] ending send_message(uint32_t type, std::string_view text);

// Sends one message and waits for its answer, timeout seconds at most. REFUSED with the reason in
// errno when it could not be sent; SILENT without an answer, also when a signal ended the wait.
[[nodiscard]] ending ask_message(uint32_t type, std::string_view text, double timeout,
                                 agent_answer* out);
