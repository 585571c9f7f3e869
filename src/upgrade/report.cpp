// SPDX-License-Identifier: Apache-2.0
#include "upgrade/report.h"

#include "base/text.h"
#include "cloud/events.h"

namespace {

constexpr size_t REPORT_SIZE = 1024;

// The offer that the report tells of is the job's for as long as the job is the entry's.
bool format_report(const app_info& entry, app_job job, const char* result,
                   char (&report)[REPORT_SIZE]) {
    const app_list_guard guard;
    if (job == NO_JOB || entry.job != job || !entry.remote || result == nullptr) {
        return false;
    }
    (void)format_text(report, "app_name=%s&version=%s&to_version=%s&upgrade_result=%s",
                      text_or(entry.app_name, ""), text_or(entry.version, ""),
                      text_or(entry.remote->version, ""), result);  // a cut report still tells
    return true;
}

}  // namespace

void report_upgrade_result(const app_info& entry, app_job job, const char* result) {
    char report[REPORT_SIZE] = {};
    if (!format_report(entry, job, result, report)) {
        return;
    }
    add_upgrade_report(report);
    send_upgrade_reports();
}

void send_upgrade_reports() {
    // Whoever is first sends the oldest, so each goes out once.
    while (upgrade_reports_wait() && pluginmgr_api(nullptr, "report_upgrade") == 0) {
    }
}
