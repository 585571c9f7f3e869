// SPDX-License-Identifier: Apache-2.0
#include "upgrade/download.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>

#include "base/shell.h"
#include "base/text.h"
#include "config/settings.h"
#include "device/hosts.h"
#include "device/url.h"
#include "log/tb_log.h"
#include "net/dns.h"
#include "net/transfer.h"
#include "upgrade/app_info.h"
#include "upgrade/app_state.h"
#include "upgrade/fetch.h"
#include "upgrade/package_file.h"
#include "upgrade/report.h"
#include "upgrade/request.h"

namespace {

constexpr const char* FUNCTION = "download_run";
constexpr useconds_t POLL_PAUSE = 500'000;  // microseconds
constexpr int POLL_LIMIT = 1200;            // about ten minutes
constexpr int CHILD_EXIT = 127;
constexpr pid_t NO_CHILD = -1;
constexpr off_t NO_FILE = -1;

std::atomic<int> download_attempts = 0;  // odd: wget

struct job {
    app_info* entry = nullptr;
    app_job number = NO_JOB;
    const app_info* remote = nullptr;
    bool use_wget = false;
    bool has_folder = false;  // of our own to download into
    char target[PACKAGE_PATH_SIZE] = {};
    // Bytes that the file may get: one too many tells a package that is larger than announced.
    long long limit = 0;
    fetch_command fetch = {};  // of the daemon's own client
};

off_t file_size(const char* path) {
    struct stat info = {};
    return stat(path, &info) == 0 ? info.st_size : NO_FILE;
}

bool still_wanted(const job& work) {
    return is_current(*work.entry, work.number);
}

void end_with(const job& work, app_event event) {
    (void)advance_locked(work.entry, work.number, event);  // in vain after a stop
}

bool is_usable_link(const char* link) {
    // Anything else in front could be taken for an option by wget, and a control character for the
    // end of the request's line.
    const char first = link != nullptr ? link[0] : '\0';
    if (first != '\0' && one_line(link) != link) {
        return false;
    }
    return (first >= 'a' && first <= 'z') || (first >= 'A' && first <= 'Z') ||
           (first >= '0' && first <= '9');
}

bool find_target(job* work) {
    const char* name = work->remote->version_name.get();
    if (!is_empty(name) && !package_path(name, &work->target)) {
        log_err(FUNCTION, __LINE__, "package name %s is no plain file name",
                one_line(name).c_str());
    }
    return work->target[0] != '\0' && is_usable_link(work->remote->link.get());
}

bool prepare(job* work) {
    app_info* entry = work->entry;
    if (work->remote == nullptr) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__, "no new version, exit download");
        end_with(*work, app_event::nothing_to_download);
        return false;
    }
    if (check_memory(*work->remote, entry) != 0) {
        log_err(FUNCTION, __LINE__, "havn't enough memory for download %s, size %dk",
                entry->app_name.get(), work->remote->size / 1024);
        report_upgrade_result(*entry, work->number, "no memory");
        end_with(*work, app_event::download_failed);
        return false;
    }
    if (!find_target(work)) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__,
                "no version name or download url, exit download");
        end_with(*work, app_event::nothing_to_download);
        return false;
    }
    return true;
}

// wget knows only the system's resolver; the daemon's own may know more.
void pin_host(const char* link) {
    char host[256] = {};
    char path[1024] = {};
    char address[IPV4_TEXT_SIZE] = {};
    int port = 443;
    split_url(link, host, path, &port, sizeof host, sizeof path);
    if (dns_lookup(host, &address) == 0 && address[0] != '\0') {
        checkHostsFile(host, address);
    }
}

// A program that writes on is ended by the kernel, without leaving a core.
void limit_file_size(long long limit) {
    const rlimit size = {static_cast<rlim_t>(limit), static_cast<rlim_t>(limit)};
    const rlimit nothing = {};
    (void)setrlimit(RLIMIT_FSIZE, &size);  // lowering a limit does not fail
    (void)setrlimit(RLIMIT_CORE, &nothing);
}

// The child is a copy of a process with several threads, any of whose locks may have been taken
// for good: until it runs another program it makes system calls only.
[[noreturn]] void run_child(const job& work, pid_t parent) {
    // Nobody would judge what it brings once the daemon is gone.
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(CHILD_EXIT);
    }
    const int null_device = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (null_device >= 0) {
        (void)dup2(null_device, STDOUT_FILENO);
        (void)dup2(null_device, STDERR_FILENO);
    }
    run_shell_unlocked("mkdir -p /tmp/dl_cloud/");
    (void)umask(umask(S_IRWXU | S_IRWXG | S_IRWXO) | S_IWGRP | S_IWOTH);
    if (work.use_wget) {
        sigset_t none;
        sigemptyset(&none);
        (void)sigprocmask(SIG_SETMASK, &none, nullptr);
        limit_file_size(work.limit);
        execlp("wget", "wget", "-O", work.target, work.remote->link.get(),
               static_cast<char*>(nullptr));
    } else {
        exec_fetch(work.fetch);
    }
    _exit(CHILD_EXIT);
}

pid_t start_child(job* work) {
    work->has_folder = own_folder(DOWNLOAD_FOLDER);
    if (!work->has_folder) {
        return NO_CHILD;
    }
    // A file, or a link, that lies there already is not written through.
    (void)unlink(work->target);
    work->limit = std::max<long long>(work->remote->size, 0) + 1;
    build_fetch(work->remote->link.get(), work->target, work->limit, &work->fetch);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0) {
        run_child(*work, parent);
    }
    if (child > 0) {  // without one the missing file is the failure
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__, "new process %d download %s using %s",
                child, work->target, work->use_wget ? "wget" : "internal function");
    }
    return child;
}

void log_child(pid_t child, const char* target, const char* how) {
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__, "process %d download %s %s", child,
            target, how);
}

// What the file still lacks counts as taken, beside what it takes already.
void note_progress(const job& work) {
    const off_t size = std::max<off_t>(file_size(work.target), 0);
    work.entry->download_rest = std::max<int64_t>(work.remote->size - size, 0);
}

// Waits for the child to end, or ends it. False when the download has been stopped.
bool watch_child(const job& work, pid_t child) {
    for (int polls = 0;; polls++) {
        if (waitpid(child, nullptr, WNOHANG) != 0) {
            log_child(child, work.target, "finish");
            return true;
        }
        note_progress(work);
        if (!still_wanted(work)) {
            (void)kill(child, SIGKILL);  // left unreaped: nobody waits for a stopped download
            log_child(child, work.target, "canceled");
            return false;
        }
        if (polls > POLL_LIMIT) {
            (void)kill(child, SIGKILL);
            (void)waitpid(child, nullptr, 0);
            log_child(child, work.target, "timeout");
            return true;
        }
        usleep(POLL_PAUSE);
    }
}

bool is_complete(const job& work) {
    const off_t size = work.has_folder ? file_size(work.target) : NO_FILE;
    if (size == NO_FILE) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__, "download %s failed", work.target);
        return false;
    }
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__, "download_run %s st_size:%d, size:%d",
            work.entry->app_name.get(), static_cast<int>(size), work.remote->size);
    if (size != work.remote->size) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__, "download %s failed, size %d(%d)",
                work.target, work.remote->size, static_cast<int>(size));
        return false;
    }
    return true;
}

void fail(const job& work) {
    download_attempts++;
    if (work.has_folder) {
        run_shell_format("rm -f %s", shell_word(work.target).c_str());
        (void)unlink(work.target);  // also without a shell
    }
    report_upgrade_result(*work.entry, work.number, "download failed");
    // Last: from then on another offer may come.
    end_with(work, app_event::download_failed);
}

void run(job* work) {
    const app_info_ptr remote = copy_remote(*work->entry);
    work->remote = remote.get();
    if (!prepare(work)) {
        return;
    }
    work->use_wget = download_attempts % 2 != 0 && wget_may_fetch(remote->link.get());
    if (work->use_wget && text_of(pluginmgr_config.device_model) != "BRIX") {
        pin_host(remote->link.get());
    }
    // The status is "downloading" since the thread was started.
    const pid_t child = start_child(work);
    if (child > 0 && !watch_child(*work, child)) {
        return;
    }
    if (!still_wanted(*work)) {
        return;  // stopped in the instant in which the child has ended by itself
    }
    if (is_complete(*work)) {
        end_with(*work, app_event::download_done);
    } else {
        fail(*work);
    }
    log_msg(LOG_SERVICE, LEVEL_DEBUG, FUNCTION, __LINE__,
            "download_run thread for %s exit, status %d", work->entry->app_name.get(),
            work->entry->status.load());
}

}  // namespace

void* download_run(void* entry) {
    (void)pthread_detach(pthread_self());
    (void)pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    job work = {.entry = static_cast<app_info*>(entry)};
    work.number = current_job(*work.entry);
    run(&work);
    const app_list_guard guard;
    work.entry->download_rest = 0;
    work.entry->download_thread_runs = false;  // only now may the next one write the same file
    return nullptr;
}
