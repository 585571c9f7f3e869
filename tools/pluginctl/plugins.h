// SPDX-License-Identifier: Apache-2.0
// The plug-in list as the daemon tells it, and its table for people.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "upgrade/app_info.h"

struct plugin {
    std::string name;
    std::string version;      // installed; empty when unknown
    std::string new_version;  // offered by the cloud, else the installed one
    long long size = 0;       // of the offered package, bytes
    int status = APP_IDLE;

    [[nodiscard]] bool has_offer() const { return new_version != version; }
};

// Reads the reply to id 80005 or 80025; nothing when it is not such a list.
[[nodiscard]] std::optional<std::vector<plugin>> read_plugins(const std::string& reply);

[[nodiscard]] const plugin* find_plugin(const std::vector<plugin>& list, const std::string& name);

// The state in words, made out for the entry: an idle one with an offer says so.
[[nodiscard]] const char* state_of(const plugin& entry);

// Prints the list as an aligned table on standard output.
void print_plugins(const std::vector<plugin>& list);

// States in which an upgrade is under way.
[[nodiscard]] bool is_active(int status);

// States in which an upgrade has ended. The daemon forgets a request that is made in one of them,
// until a check has found a newer version.
[[nodiscard]] bool is_ended(int status);
