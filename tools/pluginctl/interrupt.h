// SPDX-License-Identifier: Apache-2.0
// Tidying up before a signal ends the program: a terminal without echo or a socket's file would
// stay behind otherwise.
#pragma once

// While one lives, SIGINT, SIGTERM, SIGHUP and SIGQUIT only break off the system call that waits
// (EINTR). Its end takes them up again: the program then dies of the signal as it would have. One
// at a time; declare it before what has to be tidied up, so that it ends last.
class hold_signals {
  public:
    hold_signals();
    ~hold_signals();
    hold_signals(const hold_signals&) = delete;
    hold_signals& operator=(const hold_signals&) = delete;
};

// True once a held signal has come.
[[nodiscard]] bool was_interrupted();
