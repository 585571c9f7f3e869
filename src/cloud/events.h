// SPDX-License-Identifier: Apache-2.0
// The single entry into the cloud REST API: named events, each one signed or authorised request
// whose answer's values go into the settings record. Owns the activation state and the upgrade
// reports that wait. Any working thread; events on the API connection take turns (client lock).
#pragma once

#include <atomic>
#include <cstddef>

#include "net/transport.h"

// Result of the last active_device(), 0 until the first; while it is not 0 every event returns it
// at once, and the device still has to be activated.
extern std::atomic<int> activation_state;

constexpr size_t SIGNATURE_SIZE = 41;  // 40 hexadecimal digits and the terminator

// Performs the event that name begins with. conn null is the API connection. param is the text of
// "app_report". 0, a local code (16, 17, 21, 23, 31, 91), a transport or exchange code, or the
// platform's own code.
int pluginmgr_api_with_param(https_conn* conn, const char* name, const char* param);
int pluginmgr_api(https_conn* conn, const char* name);

// Signs MAC and timestamp for kind 1: lower-case hex HMAC-SHA1 into out (size bytes). 0, or -1
// for kind 2, which nobody uses.
[[nodiscard]] int sign_request(int kind, const char* mac, const char* timestamp, char* out,
                               size_t size);

// Adds a report to those that wait; each "report_upgrade" sends and releases the oldest. At most 64
// wait: beyond them the oldest is dropped, logged.
void add_upgrade_report(const char* text);
[[nodiscard]] bool upgrade_reports_wait();

// Where a new device id would be written to flash. Does nothing and says so: non-zero. The event
// that brought the id therefore reports a failure although the id is in effect.
[[nodiscard]] int save_device_id(const char* device_id);
