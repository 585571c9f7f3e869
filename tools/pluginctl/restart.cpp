// SPDX-License-Identifier: Apache-2.0
#include "restart.h"

#include <unistd.h>

#include <cstdio>
#include <string>

#include "answers.h"
#include "commands.h"

namespace {

constexpr const char* LIST_QUERY = "method=gw.config.get&id=80005";

// Seconds. A look is shorter than the second for which the port is closed at least, so that no
// restart goes unseen.
constexpr double LOOK = 0.5;
constexpr double ABSENCE = 90;  // a restart with a slow cloud takes most of it
constexpr useconds_t PAUSE = 100000;

}  // namespace

aftermath await_restart(const client& daemon) {
    const double deadline = seconds_now() + ABSENCE;
    bool left = false;
    while (seconds_now() < deadline) {
        std::string reply;
        const ending end = ask(daemon, LIST_QUERY, LOOK, &reply);
        if (end == ending::ANSWERED) {
            return left ? aftermath::RETURNED : aftermath::STAYED;
        }
        if (end == ending::REFUSED) {
            left = true;
            usleep(PAUSE);
        }
    }
    return aftermath::LOST;
}

int follow_restart(const client& daemon, bool quiet) {
    const double started = seconds_now();
    const aftermath found = await_restart(daemon);
    if (found == aftermath::LOST) {
        complain("pluginmgr has not answered for a minute and a half since the change");
        return EXIT_NOBODY;
    }
    if (!quiet && found == aftermath::STAYED) {
        printf("pluginmgr goes on without a restart\n");
    } else if (!quiet) {
        printf("pluginmgr has restarted and answers again (%.1f s)\n", seconds_now() - started);
    }
    return EXIT_DONE;
}
