// SPDX-License-Identifier: Apache-2.0
// The daemon's entry: one copy, signals, start-up, two threads, then sleep until told to end.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "codec/encode.h"
#include "config/settings.h"
#include "control/control_thread.h"
#include "frame/pid_file.h"
#include "frame/signals.h"
#include "frame/startup.h"
#include "log/tb_log.h"
#include "net/transport.h"
#include "upgrade/check_cycle.h"
#include "upgrade/fetch.h"

namespace {

// Both threads live as long as the process and are never joined. 0, or -1 with the error logged.
int start_threads() {
    pthread_t control = {};
    pthread_t upgrade = {};
    if (pthread_create(&control, nullptr, param_id, &exit_requested) != 0) {
        log_err("main", __LINE__, "Create pthread error!");
        return -1;
    }
    if (mode_is("ums") || mode_is("disable")) {
        return 0;
    }
    if (pthread_create(&upgrade, nullptr, upgrade_run, &exit_requested) != 0) {
        log_err("main", __LINE__, "Create upgrade_run pthread error!");
        return -1;
    }
    return 0;
}

// One of them that came closed would be given to the pid file or a log next, which then get what
// is printed.
void occupy_standard_descriptors() {
    int null_device = 0;
    do {
        null_device = open("/dev/null", O_RDWR);  // children inherit it: not close-on-exec
    } while (null_device >= 0 && null_device <= STDERR_FILENO);
    (void)close(null_device);
}

}  // namespace

int main(int argc, char** argv) {
    if (is_fetch(argc, argv)) {
        mainPid = getppid();  // signals are only counted in a child
        install_signal_handlers();
        return run_fetch(argv);
    }
    mainPid = getpid();
    occupy_standard_descriptors();
    if (lock_pid_file(nullptr) != 0) {
        return -1;
    }
    install_signal_handlers();
    const int init_flag = argc > 1 && std::string_view(argv[1]) == "--init" ? 1 : 0;
    ssl_library_init();
    url_escape_init();

    block_sigpipe();
    (void)pluginmgr_init(init_flag);  // best effort in every step, always 0
    if (start_threads() != 0) {
        _exit(-1);  // not return: destructors would race with the thread that runs already
    }
    unblock_sigpipe();

    while (shouldExit == 0) {
        sleep(1);
    }
    log_err(__func__, __LINE__, "main thread exit, shouldExit=%d", shouldExit.load());
    exit(0);
}
