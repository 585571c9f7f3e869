// SPDX-License-Identifier: Apache-2.0
#include "upgrade/install.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/file.h"
#include "base/handles.h"
#include "base/result.h"
#include "base/shell.h"
#include "base/text.h"
#include "config/settings.h"
#include "log/tb_log.h"
#include "upgrade/app_state.h"
#include "upgrade/orphan.h"
#include "upgrade/package_file.h"
#include "upgrade/report.h"
#include "upgrade/signature.h"

std::atomic<int> upgrade_busy = 0;

namespace {

constexpr const char* FUNCTION = "upgrade_process";
constexpr const char* MESSAGE_FILE = "/tmp/up_cloud/up_msg";
constexpr size_t MESSAGE_SIZE = 128 + 1;
constexpr size_t SIGNATURE_TEXT_SIZE = 100;
constexpr size_t SOURCE_SIZE = 32;
constexpr mode_t SCRIPT_MODE = 0755;

// What an install has open; path is the package's name.
struct install_files {
    unique_fd package = {};
    const char* path = nullptr;
    unique_fd lock = {};
};

bool find_package(const app_info& remote, char (*package)[PACKAGE_PATH_SIZE]) {
    if (!package_path(remote.version_name.get(), package)) {
        log_err(FUNCTION, __LINE__, "package name %s is no plain file name",
                one_line(text_or(remote.version_name, "(null)")).c_str());
        return false;
    }
    return access(*package, F_OK) == 0;
}

// Whose word about entry's install counts.
struct install_job {
    app_info* entry = nullptr;
    app_job number = NO_JOB;
};

// Takes the one install. False when another was faster or the user has stopped it.
bool begin_install(const install_job& job) {
    if (upgrade_busy.exchange(1) == 1) {
        return false;
    }
    const bool begun = advance_locked(job.entry, job.number, app_event::install_begun);
    if (!begun) {
        upgrade_busy = 0;
    }
    return begun;
}

// In vain when the user has stopped the install meanwhile.
void end_with(const install_job& job, app_event event) {
    (void)advance_locked(job.entry, job.number, event);
}

void refuse(const install_job& job, const install_files& files, app_event event,
            const char* reason) {
    remove_package(files.package.get(), files.path);
    report_upgrade_result(*job.entry, job.number, reason);
    end_with(job, event);
}

bool verify_package(const install_job& job, const app_info& remote, const install_files& files) {
    char source[SOURCE_SIZE] = {};
    char signature[SIGNATURE_TEXT_SIZE] = {};
    const char* name = job.entry->app_name.get();
    if (pluginmgr_config.check_signature != 1) {
        return true;
    }
    if (is_empty(remote.signature.get())) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__,
                "%s version info havn't signature, refuse upgrade.", name);
        refuse(job, files, app_event::signature_missing, "not found signature");
        return false;
    }
    format_text(source, "/proc/self/fd/%d", files.package.get());
    if (upgrade_signature(source, remote.version.get(), signature, sizeof signature) != 0 ||
        strcmp(signature, remote.signature.get()) != 0) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__,
                "%s version signature not match, refuse upgrade.", name);
        refuse(job, files, app_event::signature_wrong, "signature not match");
        return false;
    }
    return true;
}

// A cancelled thread runs no destructors: the package's room would stay taken, the lock held.
void abandon(void* argument) {
    auto* files = static_cast<install_files*>(argument);
    remove_package(files->package.get(), files->path);
    files->package.reset();
    end_install(unique_fd(files->lock.release()));
}

// Can be cancelled: no lock of the daemon, log line or exchange is under way.
int run_cancellable(const char* command, const install_files& files) {
    (void)lseek(files.package.get(), 0, SEEK_SET);  // an earlier run has read it
    (void)pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    pthread_testcancel();
    const int result =
        run_shell_job(command, {.lock = files.lock.get(), .package = files.package.get()});
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    return result;
}

// The script is told the name and given the open file, which is what it unpacks.
void run_install_script(const app_info& entry, const app_info& remote, const install_files& files) {
    const std::string command =
        joined({INSTALL_SCRIPT, " ", shell_word(files.path), " >/dev/null"});
    record_install(entry, remote);
    int result = run_cancellable(command.c_str(), files);
    if (result > 0) {
        generateInstallShell(INSTALL_SCRIPT);
        log_err(FUNCTION, __LINE__, "command:%s fail with %d, try again!", command.c_str(), result);
        record_install(entry, remote);
        result = run_cancellable(command.c_str(), files);
    }
    log_msg(LOG_SERVICE, LEVEL_DEBUG, FUNCTION, __LINE__, "%d command:%s ,return %d", getpid(),
            command.c_str(), result);
}

// The only places where the thread can be cancelled are in here: while an earlier script or its own
// is waited for. False when there is nothing to judge.
bool run_installer(const app_info& entry, const app_info& remote, install_files* files) {
    bool may_run = false;
    pthread_cleanup_push(abandon, files);
    if (files->package) {
        files->lock.reset(lock_install().release());
    }
    may_run = files->lock && own_folder(UNPACK_FOLDER);
    if (may_run) {
        run_install_script(entry, remote, *files);
    }
    remove_package(files->package.get(), files->path);  // which the script has done if it could run
    pthread_cleanup_pop(0);
    return may_run;
}

void read_message(char (&message)[MESSAGE_SIZE]) {
    const file_ptr file = open_stream(MESSAGE_FILE, TEXT_FILE_LIMIT);
    if (!file) {
        log_unreadable(FUNCTION, __LINE__, MESSAGE_FILE);
    }
    if (file && fgets(message, sizeof message, file.get()) != nullptr) {
        message[strcspn(message, "\n")] = '\0';
    }
}

void fail(const install_job& job) {
    report_upgrade_result(*job.entry, job.number, "fail");
    end_with(job, app_event::install_failed);
}

void log_result(const app_info& entry, off_t result, const char* message) {
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__, "%s upgrade result %d(%s)",
            entry.app_name.get(), static_cast<int>(result), message);
}

// The status comes last: from then on the check cycle may replace the offer, restart the program
// or, after an upgrade of the daemon itself, end the process.
void judge_result(const install_job& job, const app_info& remote) {
    const off_t result = install_result();
    if (result < 0) {
        fail(job);
        return;
    }
    if (result == RESULT_SUCCESS) {
        report_upgrade_result(*job.entry, job.number, "ok");
        log_result(*job.entry, result, "");
        record_new_version(job.entry, remote);
        end_with(job, app_event::install_done);
        return;
    }
    char message[MESSAGE_SIZE] = {};
    read_message(message);
    report_upgrade_result(*job.entry, job.number, message);
    log_result(*job.entry, result, message);
    end_with(job,
             result == RESULT_PARTIAL ? app_event::install_partial : app_event::install_failed);
}

// True when the install had begun, so that upgrade_busy is this thread's.
bool install(const install_job& job) {
    char package[PACKAGE_PATH_SIZE] = {};
    const app_info_ptr remote = copy_remote(*job.entry);
    if (!remote) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__, "no new version, exit upgrade");
        return false;
    }
    if (!find_package(*remote, &package)) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__, "file not found, exit upgrade");
        end_with(job, app_event::package_missing);
        return false;
    }
    if (!begin_install(job)) {
        return false;
    }
    install_files files = {.package = take_package(package), .path = package};
    if (!verify_package(job, *remote, files)) {
        return true;
    }
    if (run_installer(*job.entry, *remote, &files)) {
        judge_result(job, *remote);
    } else {
        fail(job);
    }
    end_install(unique_fd(files.lock.release()));
    return true;
}

}  // namespace

void* upgrade_process(void* entry) {
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    (void)pthread_detach(pthread_self());
    auto* app = static_cast<app_info*>(entry);
    const bool had_begun = install({.entry = app, .number = current_job(*app)});
    const app_list_guard guard;
    if (had_begun && app->upgrade_thread_runs) {  // not when it has been cancelled, even too late
        upgrade_busy = 0;
    }
    app->upgrade_thread_runs = false;
    return nullptr;
}

int generateInstallShell(const char* path) {
    const std::string script = joined({"#!/bin/sh\n", INSTALL_SCRIPT_BODY, "\n"});
    if (publish_file(path, script, SCRIPT_MODE) != 0) {
        log_err(__func__, __LINE__, "create file %s error: %s", path, strerror(errno));
        return FAILED;
    }
    return 0;
}
