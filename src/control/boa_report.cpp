// SPDX-License-Identifier: Apache-2.0
#include "control/boa_report.h"

#include <cstring>

#include "base/handles.h"
#include "cloud/events.h"
#include "config/settings.h"
#include "log/tb_log.h"

namespace {

constexpr int MOST_RETRIES = 4;

text_ptr pending_report;
int retry_count = 0;  // never increased: a report is kept until it has been delivered

}  // namespace

void handle_boa_report(const boa_request& request) {
    if (mode_is("ums")) {
        return;
    }
    const char* report = strstr(request.query(), "method=");
    if (report == nullptr) {
        return;
    }
    pending_report.reset();
    if (pluginmgr_api_with_param(nullptr, "app_report", report) != 0) {
        pending_report = heap_text(report);
        retry_count = 0;
    }
}

void resend_boa_report() {
    if (!pending_report || mode_is("ums")) {
        return;
    }
    log_plain(LOG_SYSTEM, LEVEL_NOTICE, " try resend boa_report:%s", pending_report.get());
    if (pluginmgr_api_with_param(nullptr, "app_report", pending_report.get()) == 0 ||
        retry_count >= MOST_RETRIES) {
        pending_report.reset();
    }
}
