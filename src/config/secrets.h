// SPDX-License-Identifier: Apache-2.0
// Which settings are secrets, for the log: it is readable for everybody. No state; any thread.
#pragma once

#include <algorithm>
#include <iterator>
#include <string_view>

constexpr std::string_view SECRET_SETTINGS[] = {"active_token", "ums_active_token", "device_key",
                                                "quorvel_token"};

// True for a key whose value the log shows only when log_shows_secrets().
inline bool is_secret(std::string_view key) {
    return std::find(std::begin(SECRET_SETTINGS), std::end(SECRET_SETTINGS), key) !=
           std::end(SECRET_SETTINGS);
}
