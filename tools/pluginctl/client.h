// SPDX-License-Identifier: Apache-2.0
// The terminal's end of the control protocol: one UDP socket connected to the daemon's port on
// loopback, so that a missing daemon shows at once as a refused datagram. Replies are matched by
// their cookie, a random number for each request; all others are dropped.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/handles.h"

// The longest query text that fits a request, bytes.
constexpr size_t MAX_QUERY = 224;

// How a wait for answers ended.
enum class ending {
    ANSWERED,  // all that was expected has come
    PASSED,    // the daemon answered a later request: it has no (more) answers to this one
    REFUSED,   // nobody has the port open
    SILENT,    // the time was up
};

struct client {
    unique_fd socket;
};

// Seconds on a clock that is never set.
[[nodiscard]] double seconds_now();

// False when there is no socket to be had; errno then says why.
[[nodiscard]] bool open_client(client* to);

// Sends one query and waits for its one answer, timeout seconds at most. text is the answer's
// JSON, empty unless ANSWERED. Never PASSED.
[[nodiscard]] ending ask(const client& to, std::string_view query, double timeout,
                         std::string* text);

// Sends a query that may have any number of answers and collects them. The daemon serves requests
// in the order of their arrival and ignores what it does not know, so a harmless second request
// marks the end of the answers to the first. Ends early after expected answers (0: no number
// known). After the first answer the daemon may be restarting; that ends as REFUSED. timeout is
// for each answer.
[[nodiscard]] ending ask_many(const client& to, std::string_view query, size_t expected,
                              double timeout, std::vector<std::string>* texts);
