// SPDX-License-Identifier: Apache-2.0
#include "upgrade/orphan.h"

#include <fcntl.h>
#include <json-c/json.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "base/file.h"
#include "base/json.h"
#include "log/tb_log.h"
#include "upgrade/package_file.h"
#include "upgrade/version_list.h"

namespace {

constexpr const char* FUNCTION = "lock_install";
constexpr const char* RESULT_FILE = "/tmp/up_cloud/up_stat";  // its size is the result
constexpr mode_t PRIVATE_MODE = S_IRUSR | S_IWUSR;
constexpr useconds_t POLL_PAUSE = 500'000;  // microseconds
constexpr int POLL_LIMIT = 1200;            // about ten minutes

bool exists(const char* path) {
    return access(path, F_OK) == 0;
}

bool read_record(const char* path, app_info* record) {
    const json_ptr text = parse_json_file(path);
    return text && parseAppInfoJsonObj(text.get(), record, 1) == 0 && record->app_name;
}

// The order matters: a script that is just being killed may still rename the first.
void remove_record() {
    (void)unlink(INSTALL_JOB_FILE);
    (void)unlink(INSTALL_DONE_FILE);
}

void adopt(const app_info& record) {
    app_info* entry = find_app(record.app_name.get());
    const off_t result = install_result();
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__,
            "install of %s %s has outlived its daemon, result %d", record.app_name.get(),
            text_or(record.version, "(null)"), static_cast<int>(result));
    if (entry != nullptr && result == RESULT_SUCCESS) {
        record_new_version(entry, record);
    }
}

// Its result, if any, is not to be relied on: the offer will be installed again.
void forget(const app_info& record) {
    char package[PACKAGE_PATH_SIZE] = {};
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__, "install of %s %s was broken off",
            record.app_name.get(), text_or(record.version, "(null)"));
    if (package_path(record.version_name.get(), &package)) {
        (void)unlink(package);
    }
}

// What the last holder of the lock has left; the caller holds it now.
void settle_record() {
    app_info record;
    if (read_record(INSTALL_DONE_FILE, &record)) {
        adopt(record);
    } else if (read_record(INSTALL_JOB_FILE, &record)) {
        forget(record);
    }
    remove_record();
}

// None with errno EWOULDBLOCK when somebody has it.
unique_fd try_lock() {
    if (exists(INSTALL_DONE_FILE)) {
        // Its script has ended. What still has the lock is a program that the package has started,
        // and may keep it for good.
        (void)unlink(INSTALL_LOCK_FILE);
    }
    unique_fd lock(
        open(INSTALL_LOCK_FILE, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, PRIVATE_MODE));
    if (lock && flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        lock.reset();
        errno = error;
    }
    return lock;
}

void pause_cancellable() {
    int state = 0;
    (void)pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    usleep(POLL_PAUSE);
    (void)pthread_setcancelstate(state, nullptr);
}

}  // namespace

off_t install_result() {
    struct stat info = {};
    return stat(RESULT_FILE, &info) == 0 ? info.st_size : -1;
}

unique_fd lock_install() {
    for (int polls = 0; polls <= POLL_LIMIT; polls++) {
        unique_fd lock = try_lock();
        if (lock) {
            settle_record();
            return lock;
        }
        if (errno != EWOULDBLOCK) {
            log_err(FUNCTION, __LINE__, "%s can't be locked: %s", INSTALL_LOCK_FILE,
                    strerror(errno));
            return lock;
        }
        if (polls == 0) {
            log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__,
                    "an install has outlived its daemon, wait for it");
        }
        pause_cancellable();
    }
    log_err(FUNCTION, __LINE__, "an install that has outlived its daemon does not end, give up");
    // What has not ended by now counts as ended, or the next install would wait for it, too: what
    // holds the lock may be a program that the package has started. There may be no record.
    (void)rename(INSTALL_JOB_FILE, INSTALL_DONE_FILE);
    return {};
}

void record_install(const app_info& entry, const app_info& remote) {
    remove_record();
    (void)unlink(RESULT_FILE);  // an earlier install's must not count when the script cannot run
    const json_ptr record(json_object_new_object());
    add_json_text(record.get(), "app_name", entry.app_name.get());
    add_json_text(record.get(), "version_name", remote.version_name.get());
    add_json_text(record.get(), "version", remote.version.get());
    const char* text = json_object_to_json_string(record.get());
    if (text == nullptr || publish_file(INSTALL_JOB_FILE, text, PRIVATE_MODE) != 0) {
        log_err(__func__, __LINE__, "%s can't be written: %s", INSTALL_JOB_FILE, strerror(errno));
    }
}

void end_install(unique_fd lock) {
    if (lock) {
        remove_record();
        // A program that the package has started has it open, and may run for good.
        (void)flock(lock.get(), LOCK_UN);
    }
}

void record_new_version(app_info* entry, const app_info& installed) {
    text_ptr version_name = heap_text(installed.version_name.get());
    text_ptr version = heap_text(installed.version.get());
    {
        const app_list_guard guard;
        entry->version_name.swap(version_name);
        entry->version.swap(version);
    }
    dumpVersionToFile();
}

void adopt_orphan_install() {
    if (exists(INSTALL_JOB_FILE) || exists(INSTALL_DONE_FILE)) {
        end_install(lock_install());
    }
}
