// SPDX-License-Identifier: Apache-2.0
// Results of upgrades, reported to the cloud platform. Download and install threads.
#pragma once

#include "upgrade/app_info.h"

// Reports how entry's upgrade to the offered version ended: "ok", "fail" or a reason. Nothing
// happens without a remote record or text, or when job is not the entry's any more. A failing
// report is not repeated.
void report_upgrade_result(const app_info& entry, app_job job, const char* result);
