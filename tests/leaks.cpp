// SPDX-License-Identifier: Apache-2.0
// Linked into the daemon of builds with AddressSanitizer only. The daemon ends by a signal, never
// from main(), so that nobody would look for leaked memory: its idle main thread does, each second
// until the first find.
#include <sanitizer/lsan_interface.h>
#include <unistd.h>

extern "C" unsigned __real_sleep(unsigned seconds);

// A stopped install is cancelled and runs no destructors. That happens once in the life of a
// daemon, which then installs nothing more.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:run_install_script\nleak:copy_remote\n";
}

extern "C" const char* __lsan_default_options() {
    return "print_suppressions=0";  // or using one would count as a report
}

extern "C" unsigned __wrap_sleep(unsigned seconds) {
    static bool found = false;
    if (!found && gettid() == getpid()) {
        found = __lsan_do_recoverable_leak_check() != 0;
    }
    return __real_sleep(seconds);
}
