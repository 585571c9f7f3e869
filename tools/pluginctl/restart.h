// SPDX-License-Identifier: Apache-2.0
// The daemon ends right behind its answer to a change of run mode that needs another process, and
// starts anew a second later.
#pragma once

#include "client.h"

enum class aftermath {
    STAYED,    // the same process answers
    RETURNED,  // its port was closed, and now it answers
    LOST,      // no answer for a minute and a half
};

// Looks what becomes of the daemon, until it answers. Ask right after the answer to the change.
[[nodiscard]] aftermath await_restart(const client& daemon);

// The same, told on standard output and error unless quiet. EXIT_DONE or EXIT_NOBODY.
int follow_restart(const client& daemon, bool quiet);
