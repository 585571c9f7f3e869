// SPDX-License-Identifier: Apache-2.0
// The one handler of all fatal and terminating signals, and the words it leaves. What it calls
// takes no lock, so it ends the process also in the middle of a log line or an allocation.
#pragma once

#include <sys/types.h>

#include <atomic>

extern pid_t mainPid;                    // of the daemon; a child's differs
extern std::atomic<int> shouldExit;      // signals counted in a forked child
extern std::atomic<int> exit_requested;  // handed to both worker threads

// Routes the signals to on_signal. Main thread, at start.
void install_signal_handlers();

// Ends the daemon with status 0; after a SIGPIPE a new copy starts three seconds later. In a
// child that has not yet executed another program, and in a download by the daemon's own client,
// the signal is only counted; one that tells of a fault ends it the next time.
void on_signal(int signo);

// SIGPIPE may interrupt only the idle main thread: a peer that goes away in mid-write is an
// ordinary send failure everywhere else. Blocked before threads are made; unblocked after, and what
// came to the main thread meanwhile is forgotten.
void block_sigpipe();
void unblock_sigpipe();
