// SPDX-License-Identifier: Apache-2.0
// Everything between the process's start and its threads: logging, settings, identity,
// environment, agents, first registration. Main thread.
#pragma once

// The whole start-up sequence. The flag is accepted and does nothing. Always 0.
int pluginmgr_init(int init_flag);

// Appends value to the colon-separated variable name unless it is there already: a restarted daemon
// inherits what the one before it has set. The result of setenv(), or -1 when the text
// would be empty.
int add_env(const char* name, const char* value);

// Pins the hosts that the user has given addresses for ("user_apiserver", "user_sipserver", each
// "host|address") in /etc/hosts. Always 0.
int apply_user_servers();
