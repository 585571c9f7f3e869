// SPDX-License-Identifier: Apache-2.0
#include "frame/signals.h"

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string_view>

#include "base/shell.h"
#include "log/tb_log.h"

pid_t mainPid = 0;
std::atomic<int> shouldExit = 0;
std::atomic<int> exit_requested = 0;

namespace {

constexpr int LOGGED_SIGNALS = 5;  // a signal storm fills no log
constexpr int LOG_LINE = 247;

// In this order. SIGKILL cannot be caught and two are named twice; harmless, and left so.
constexpr int HANDLED[] = {SIGINT, SIGILL,  SIGABRT, SIGABRT, SIGKILL,
                           SIGBUS, SIGSEGV, SIGTERM, SIGTERM, SIGPIPE};

bool is_handled(int signo) {
    for (const int handled : HANDLED) {
        if (handled == signo) {
            return true;
        }
    }
    return false;
}

// A line built without printf, which may take locks.
struct signal_line {
    char text[160] = {};
    size_t length = 0;

    signal_line& add(std::string_view words) {
        for (const char c : words) {
            if (length < sizeof text - 1) {
                text[length++] = c;
            }
        }
        return *this;
    }
    signal_line& add(long number) {
        char digits[24] = {};
        size_t at = sizeof digits;
        unsigned long rest = number < 0 ? 0UL - static_cast<unsigned long>(number)
                                        : static_cast<unsigned long>(number);
        do {
            digits[--at] = static_cast<char>('0' + rest % 10);
            rest /= 10;
        } while (rest != 0);
        if (number < 0) {
            digits[--at] = '-';
        }
        return add(std::string_view(digits + at, sizeof digits - at));
    }
};

sigset_t only_sigpipe() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    return signals;
}

}  // namespace

void install_signal_handlers() {
    for (const int signo : HANDLED) {
        (void)signal(signo, on_signal);
    }
}

void on_signal(int signo) {
    if (!is_handled(signo)) {
        return;
    }
    exit_requested = 1;
    const int counted = shouldExit;
    if (counted < LOGGED_SIGNALS) {
        signal_line line;
        line.add(" get a signal - ").add(signo).add(". exit!!!");
        log_from_signal(LOG_LINE, line.text);
    }
    if (signo == SIGPIPE) {
        run_shell_unlocked("sleep 3 && /var/run/pluginmgr &");
        _exit(0);
    }
    // _exit, not exit: handlers of exit() flush streams, whose locks the interrupted code may hold.
    if (getpid() == mainPid) {
        _exit(0);
    }
    if (counted < LOGGED_SIGNALS) {
        signal_line line;
        line.add(" ignore signal ").add(signo).add(" from children or thread!!! mainPid ");
        line.add(mainPid).add(" curPid ").add(getpid()).add(", shouldExit=").add(counted);
        log_from_signal(LOG_LINE, line.text);
    }
    shouldExit++;
    if (signo == SIGSEGV || signo == SIGBUS || signo == SIGILL) {
        (void)signal(signo, SIG_DFL);  // or a real fault would come again for ever
    }
}

void block_sigpipe() {
    const sigset_t signals = only_sigpipe();
    (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // fails for a bad first argument only
}

void unblock_sigpipe() {
    const sigset_t signals = only_sigpipe();
    const timespec at_once = {};
    // Left by a write of the start-up: its send failure has been dealt with.
    while (sigtimedwait(&signals, nullptr, &at_once) == SIGPIPE || errno == EINTR) {
    }
    (void)pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}
