// SPDX-License-Identifier: Apache-2.0
#include "interrupt.h"

#include <csignal>
#include <iterator>

namespace {

constexpr int HELD[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

volatile sig_atomic_t caught = 0;
struct sigaction previous[std::size(HELD)] = {};

void note_signal(int number) {
    caught = number;
}

}  // namespace

hold_signals::hold_signals() {
    struct sigaction action = {};
    action.sa_handler = note_signal;  // without SA_RESTART: a wait ends
    caught = 0;
    for (size_t i = 0; i < std::size(HELD); i++) {
        (void)sigaction(HELD[i], &action, &previous[i]);  // these numbers are always good
    }
}

hold_signals::~hold_signals() {
    for (size_t i = 0; i < std::size(HELD); i++) {
        (void)sigaction(HELD[i], &previous[i], nullptr);
    }
    if (caught != 0) {
        (void)raise(caught);
    }
}

bool was_interrupted() {
    return caught != 0;
}
