// SPDX-License-Identifier: Apache-2.0
// The local version list: read from and written to
// /var/config/cloud/cloud_plugin_version.json, completed with the running versions, published in
// the environment ("cloud_version"), in /var/log/versions/cloud and to the cloud agent. Also the
// status document for the web pages.
#pragma once

#include <atomic>
#include <cstddef>

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

// Writes the file, then publishes and sends the versions. Install thread.
void dumpVersionToFile();

// Publishes the versions; send 1 passes them to the cloud agent as well.
void send_versions_to_cloudae(int send);

// Sends a text of at most 1004 characters to the cloud agent. 0 or -1, logged.
int sendToCloudae(const char* text);

// Writes the status document into buffer and returns its length, less than size - 1. Release
// notes are shortened until it fits. Control thread.
[[nodiscard]] size_t dumpVersionStatus(char* buffer, size_t size);
