// SPDX-License-Identifier: Apache-2.0
// The control protocol's numbers in words. No state.
#pragma once

#include <string>
#include <string_view>

// What a result code means; codes that are not the daemon's own are the cloud platform's.
[[nodiscard]] const char* code_words(int code);

// An upgrade state in words.
[[nodiscard]] const char* status_words(int status);

// One parameter id of the control protocol.
struct parameter {
    int id;
    int asked_as;       // the id whose reply carries its value; 0: it cannot be read
    bool settable;      // by gw.config.set
    bool set_answered;  // setting it has a reply of its own
    const char* meaning;
};
// The row of an id, or null.
[[nodiscard]] const parameter* find_parameter(int id);

// The answered ids of one gw.config.set request, in the order of their replies; ends with 0.
extern const int SET_REPLY_ORDER[];

// True when the daemon would take a part of value for the key of another setting: it looks keys
// up anywhere in the query text.
[[nodiscard]] bool hides_a_key(std::string_view value);

// "0 B", "1.5 KiB", "10.0 MiB".
[[nodiscard]] std::string size_words(long long bytes);

// Character cells that a UTF-8 text takes, wide characters counted as one.
[[nodiscard]] size_t cells(std::string_view text);
