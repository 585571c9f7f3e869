// SPDX-License-Identifier: Apache-2.0
// Who learns the installed versions: programs that are started (environment "cloud_version"),
// readers of /var/log/versions/cloud and the cloud agent. Owns the text in the environment and the
// one before it. One thread at a time: the main thread at the start, then that of an install.
#pragma once

#include <cstddef>

#include "base/json.h"

// Bytes of the JSON document in the environment. With a single text of 128 KiB the system starts no
// program any more.
constexpr size_t EXPORT_LIMIT = 64 * 1024;

// Puts the array list into the environment of what is started from now on. Entries that do not fit
// are left out, with one error line. The text that was there is freed with the next but one.
void export_versions(json_object* list);

// Publishes the versions; send 1 passes them to the cloud agent as well.
void send_versions_to_cloudae(int send);

// Sends a text of at most 1004 characters to the cloud agent. 0 or -1, logged.
int sendToCloudae(const char* text);
