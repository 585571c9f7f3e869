// SPDX-License-Identifier: Apache-2.0
// How the status of an application changes: one function, by one table of states and events.
// Nothing else writes the status of an entry. What a download or an install says counts only while
// the job is the entry's own: a stop, or a newer job, makes an older one speak in vain.
#pragma once

#include <cstdint>

#include "upgrade/app_info.h"

// Who brings an event about stands behind it: check cycle, user, or a job.
enum class app_event {
    offer_newer,          // check: a newer version is on offer
    offer_not_newer,      // check: what is on offer is not newer
    query_failed,         // check: no usable answer
    asked_for,            // user: the upgrade shall begin
    stopped,              // user: whatever runs shall end
    download_begun,       // check, which then starts the thread
    download_not_begun,   // check: there was no thread to be had
    nothing_to_download,  // job: no link, or no file name
    download_failed,      // job
    download_done,        // job
    install_begun,        // job
    package_missing,      // job: the file has gone before its installation
    signature_missing,    // job
    signature_wrong,      // job
    install_failed,       // job
    install_partial,      // job: the installer's result code had size 2
    install_done,         // job
    restarted,            // check: the program runs, or will run, in its new version
    count
};

// Carries out event for app: sets its status, and with it whether the upgrade is still asked for. A
// job gives its number, everybody else NO_JOB. False, with nothing changed, when the job is not
// the entry's any more, or when the table has no way from the status by this event, which is
// logged. The caller holds app_list_lock.
[[nodiscard]] bool advance(app_info* app, app_job job, app_event event);

// Where event leads from a status, or NO_WAY.
constexpr int NO_WAY = -1;
[[nodiscard]] int next_status(int status, app_event event);

// The number of the job that app has now; NO_JOB when it was stopped. Takes the lock.
[[nodiscard]] app_job current_job(const app_info& app);
// Whether job is still the entry's. Takes the lock.
[[nodiscard]] bool is_current(const app_info& app, app_job job);
// advance(), taking the lock.
bool advance_locked(app_info* app, app_job job, app_event event);
