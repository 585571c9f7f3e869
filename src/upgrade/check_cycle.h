// SPDX-License-Identifier: Apache-2.0
// The upgrade thread: asks the cloud for newer versions at start and every checkcycle seconds and
// drives each entry's upgrade (download, install, restart). Owns the thread's own connection to
// the API server and the check flag.
#pragma once

#include <atomic>
#include <cstddef>

#include "base/json.h"
#include "upgrade/app_info.h"

// 1 asks the next pass to query the cloud; cleared at the end of the pass.
extern std::atomic<int> upgrade_check_flag;

// Asks the upgrade thread to drop its connection and forget the server's address before its next
// use: the API server has changed. Any thread.
void drop_upgrade_connection();

// Thread body; runs until the std::atomic<int> that stop points to becomes 1.
void* upgrade_run(void* stop);

// One pass over app_list. Upgrade thread.
void checkAllAppVersion(std::atomic<int>* check_flag);

// Asks the cloud for one application and fills record. 0, ERR_NO_UPGRADE_INFO (no API server),
// ERR_NOT_CONNECTED, ERR_NOT_JSON, ERR_ANSWER_STATUS or a transport code. Upgrade thread.
[[nodiscard]] int getRemoteAppInfo(const char* name, app_info* record);

// Writes a request without body into out (size bytes). auth "KEY" adds the device key's
// credential. 0, or -1 when it was cut.
int build_upgrade_request(char* out, size_t size, const char* method, const char* path,
                          const char* host, const char* auth);

// Sends a request over the thread's kept connection, once more when a reused one fails.
[[nodiscard]] int https_upgrade_request(const char* host, const char* request, json_ptr* answer);

// Reads an answer into record, which is cleared first. 0, ERR_NOT_JSON or ERR_ANSWER_STATUS.
[[nodiscard]] int parseRemoteAppInfo(json_object* answer, app_info* record, const char* name);
