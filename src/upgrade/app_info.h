// SPDX-License-Identifier: Apache-2.0
// The applications of the device: one record each, in one list for the whole process. Entries are
// added at start-up and never removed; walking the list needs no lock. What hangs on an entry and
// may be replaced (remote, version_name, version, the install thread's handle) is read and
// replaced under app_list_lock, which is held for moments only, never across I/O. status and
// upgrade_requested are single atomic words, which upgrade/app_state alone writes, under the lock.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "base/handles.h"
#include "base/json.h"
#include "base/lock.h"

// Upgrade state of a local entry. The numbers are part of the control protocol.
enum app_status : int {
    APP_IDLE = 0,  // a newer version may be attached
    APP_DOWNLOADING = 2,
    APP_DOWNLOAD_FAILED = 3,
    APP_DOWNLOADED = 4,  // waits for its installation
    APP_INSTALLING = 5,
    APP_INSTALL_FAILED = 6,
    APP_RESTARTED = 7,  // installed and restarted
    APP_INSTALLED = 8,  // restart pending
    APP_UP_TO_DATE = 9,
    APP_CHECK_FAILED = 10,     // or nothing to download
    APP_INSTALL_PARTIAL = 11,  // the installer's result code had size 2
    APP_NO_SIGNATURE = 12,
    APP_BAD_SIGNATURE = 13,
};

// Tells one download, with the install that follows it, from all others of the process.
using app_job = uint32_t;
constexpr app_job NO_JOB = 0;

struct app_info {
    app_info* next = nullptr;  // of a local entry
    app_info* prev = nullptr;
    text_ptr app_name = nullptr;
    text_ptr cloudserver = nullptr;   // of the remote record of "cloudae"
    text_ptr link = nullptr;          // of a remote record: where the package is
    text_ptr version_name = nullptr;  // the package's file name
    text_ptr version = nullptr;       // installed, or offered in a remote record
    text_ptr rel_info = nullptr;
    text_ptr signature = nullptr;
    int32_t size = 0;  // of the package, bytes
    std::atomic<int32_t> upgrade_requested = 0;
    std::atomic<int32_t> status = APP_IDLE;
    pthread_t download_thread = {};
    pthread_t upgrade_thread = {};
    app_job job = NO_JOB;                        // whose word counts; NO_JOB: nobody's
    bool download_thread_runs = false;           // no other is started meanwhile
    bool upgrade_thread_runs = false;            // upgrade_thread may be cancelled
    std::atomic<int64_t> download_rest = 0;      // bytes that a running download may still take
    std::unique_ptr<app_info> remote = nullptr;  // what the cloud offers, or null
};
using app_info_ptr = std::unique_ptr<app_info>;

// The sentinel of the circular list: next is the first entry, or itself.
extern app_info app_list;

// Holds app_list_lock for the length of a scope. Not recursive.
extern pthread_mutex_t app_list_lock;
struct app_list_guard {
    mutex_guard held{&app_list_lock};
};

// Appends an entry, whose owner the list becomes. Main thread, at start-up.
void append_app(app_info_ptr entry);
// The entries that have a name: the first, the one after entry; null at the end.
app_info* first_app();
app_info* next_app(const app_info* entry);
// The first entry of that name, or null.
app_info* find_app(const char* name);

// The text, or missing when there is none.
[[nodiscard]] const char* text_or(const text_ptr& text, const char* missing);

// Fills record from a JSON object; local_mode 1 reads "version", 0 does not. 0,
// ERR_NO_UPGRADE_INFO for no value, ERR_NOT_JSON for one that is no object.
[[nodiscard]] int parseAppInfoJsonObj(json_object* json, app_info* record, int local_mode);

// A deep copy of texts, size and upgrade_requested; null, logged, when memory is short.
[[nodiscard]] app_info_ptr dupAppInfo(const app_info& record);

// Frees the texts and zeroes size, upgrade_requested and the thread handles.
void clear_app_info(app_info* record);

// A copy of what the cloud offers for entry, or null. Takes the lock.
[[nodiscard]] app_info_ptr copy_remote(const app_info& entry);
// A dotted version as one number: first component << 16, second << 8, third, unmasked. 0 for any
// character but digits and dots.
[[nodiscard]] long parse_version_number(const char* version);
// True when remote's version is not newer than entry's, or a record is missing. The caller holds
// the lock where another thread may replace either version.
[[nodiscard]] bool is_not_newer(const app_info* entry, const app_info* remote);
