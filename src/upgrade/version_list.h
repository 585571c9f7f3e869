// SPDX-License-Identifier: Apache-2.0
// The local version list: read from and written to
// /var/config/cloud/cloud_plugin_version.json, completed with the running versions.
#pragma once

#include <atomic>

constexpr const char* VERSION_LIST_FILE = "/var/config/cloud/cloud_plugin_version.json";

// Set once at start-up: which agents send keep-alives and are to be watched.
extern std::atomic<int> cloudae_send_keep;
extern std::atomic<int> cloudsafety_send_keep;

// Reads the file into app_list; an entry that is no object, or whose name is no program's
// (base/name), is left out with an error line. 0, ERR_NOT_JSON, ERR_NOT_ARRAY or ERR_EMPTY_LIST,
// each logged. Main thread, once.
int loadLocalVersion();

// Appends an entry with name and version. Main thread.
void addVersionToLocal(const char* name, const char* version);

// Learns the versions of cloudae and of this daemon, completes the list and publishes it without
// sending. Main thread, after loadLocalVersion.
void dumpLocalVersion();

// Writes the file, which stays as it was when that fails, then publishes and sends the versions.
// Install thread.
void dumpVersionToFile();
