// SPDX-License-Identifier: Apache-2.0
// The verbs of pluginctl. Each talks to the daemon, prints what people or programs want to see and
// returns the program's exit status.
#pragma once

#include <span>

#include "client.h"

constexpr int EXIT_DONE = 0;
constexpr int EXIT_NOT_DONE = 1;  // refused, failed or not ended; or the output was not written
constexpr int EXIT_USAGE = 2;
constexpr int EXIT_NOBODY = 3;  // no answer

struct command_context {
    const client& daemon;
    double timeout;    // seconds for an answer
    bool json;         // print the daemon's JSON
    bool watch;        // follow an upgrade to its end
    double wait;       // seconds to wait for a user, 0: not at all
    const char* from;  // file that holds a secret, "-" for standard input; null: ask for it
};

using arguments = std::span<char* const>;

int run_status(const command_context& context, arguments words);
int run_check(const command_context& context, arguments words);
int run_update(const command_context& context, arguments words);
int run_cancel(const command_context& context, arguments words);

int run_get(const command_context& context, arguments words);
int run_set(const command_context& context, arguments words);
int run_raw(const command_context& context, arguments words);

int run_mode(const command_context& context, arguments words);
int run_bind(const command_context& context, arguments words);
int run_unbind(const command_context& context, arguments words);
int run_login(const command_context& context, arguments words);
int run_authcode(const command_context& context, arguments words);

int run_pbx_status(const command_context& context, arguments words);
int run_pbx_qr(const command_context& context, arguments words);
int run_pbx_check(const command_context& context, arguments words);
int run_pbx_activate(const command_context& context, arguments words);
int run_pbx_config(const command_context& context, arguments words);
int run_pbx_extensions(const command_context& context, arguments words);

// Over the Unix socket that the cloud agent talks to.
int run_report(const command_context& context, arguments words);
int run_loglevel(const command_context& context, arguments words);
int run_device_code(const command_context& context, arguments words);
int run_cloud_address(const command_context& context, arguments words);
