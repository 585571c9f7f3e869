// SPDX-License-Identifier: Apache-2.0
// Results of upgrades, reported to the cloud platform. Download, install and upgrade threads.
#pragma once

#include "upgrade/app_info.h"

// Reports how entry's upgrade to the offered version ended: "ok", "fail" or a reason. Nothing
// happens without a remote record or text, or when job is not the entry's any more. A report that
// could not be sent waits for the next one, or for the next check.
void report_upgrade_result(const app_info& entry, app_job job, const char* result);

// Sends the reports that wait, the oldest first, until one fails.
void send_upgrade_reports();
