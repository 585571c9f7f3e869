// SPDX-License-Identifier: Apache-2.0
#include "cloud/registration.h"

#include "base/result.h"
#include "base/text.h"
#include "cloud/events.h"
#include "config/settings.h"
#include "log/tb_log.h"

namespace {

int perform(const char* name) {
    return pluginmgr_api(nullptr, name);
}

void bind_by_token() {
    if (!is_empty(pluginmgr_config.active_token)) {
        (void)perform("bind_actoken");  // "devinfo" tells whether it is bound
    }
}

// A new id cannot be kept and counts as a failure: the run that brings it ends here, and the next
// one goes on with it. On purpose.
int obtain_id() {
    const int code = perform("get_deviceID");
    if (code != 0) {
        log_err("active_device", __LINE__, "get device_id error %d", code);
        return code;
    }
    set_text(pluginmgr_config.active_state, "false");
    return 0;
}

bool needs_activation() {
    return !has_prefix(pluginmgr_config.active_state, "true") ||
           is_empty(pluginmgr_config.device_key);
}

int activate() {
    log_plain(LOG_SYSTEM, LEVEL_ALWAYS, " this device need active.");
    const int code = perform("active");
    if (code == 0) {
        bind_by_token();
    }
    return code;
}

int read_record() {
    const int code = perform("devinfo");
    if (code != CLOUD_NOT_ACTIVE && code != CLOUD_KEY_REFUSED) {
        return code;
    }
    (void)perform("active");  // the second "devinfo" tells whether it helped
    return perform("devinfo");
}

void report_boot() {
    const int code = perform("report_uptime");
    if (code != 0 && code != CLOUD_UPTIME_KNOWN) {
        set_text(pluginmgr_config.uptime, "");  // a later run tries again
    }
}

}  // namespace

int active_device() {
    activation_state = 0;  // or every event would be refused
    if (has_prefix(pluginmgr_config.device_id, NO_DEVICE_ID)) {
        const int code = obtain_id();
        if (code != 0) {
            return code;
        }
    }
    if (needs_activation()) {
        const int code = activate();
        if (code != 0) {
            return code;
        }
    }
    const int code = read_record();
    if (text_of(pluginmgr_config.bind_status) == "false") {
        bind_by_token();
    }
    if (code != 0) {
        log_err(__func__, __LINE__, "get device info error %d", code);
        return code;
    }
    (void)perform("report_cloudserver");  // repeated by the next run
    if (is_empty(pluginmgr_config.uptime)) {
        report_boot();
    }
    return 0;
}
