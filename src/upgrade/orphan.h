// SPDX-License-Identifier: Apache-2.0
// One install at a time, also across daemons: an install script runs on when its daemon is killed
// or makes room for a successor. It holds a lock that what it starts inherits, beside which a
// record says what is installed; the script renames that as its last step. Install thread, and the
// upgrade thread before there are any.
#pragma once

#include <sys/types.h>

#include "base/handles.h"
#include "upgrade/app_info.h"

// The install script has the three names, too. All are root's alone.
constexpr const char* INSTALL_LOCK_FILE = "/var/run/cloud_install.lock";
constexpr const char* INSTALL_JOB_FILE = "/var/run/cloud_install.job";    // while the script runs
constexpr const char* INSTALL_DONE_FILE = "/var/run/cloud_install.done";  // once it has ended

constexpr off_t RESULT_SUCCESS = 10;
constexpr off_t RESULT_PARTIAL = 2;

// The size of the installer's result file, which is its result; -1 without one.
[[nodiscard]] off_t install_result();

// Takes the lock, open until the install is over. Waits for a script that a daemon before this one
// has left, ten minutes at most; a thread may be cancelled while it waits, and only then. What that
// script has installed is put into the version list. None, logged, when the lock is not to be had.
[[nodiscard]] unique_fd lock_install();

// Writes down that the script is about to install this offer, and removes the result of an earlier
// one. Without a record, which is logged, nobody puts the list right after the daemon's death.
void record_install(const app_info& entry, const app_info& remote);

// Removes the record and takes the lock from everything that has inherited it. Nothing for none.
void end_install(unique_fd lock);

// Puts an installed version into its entry, and the list into its file.
void record_new_version(app_info* entry, const app_info& installed);

// Waits for the script that a daemon before this one may have left, as lock_install does: until
// then its plug-in would be offered and installed again.
void adopt_orphan_install();
