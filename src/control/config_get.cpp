// SPDX-License-Identifier: Apache-2.0
#include "control/config_get.h"

#include <unistd.h>

#include <ctime>
#include <optional>
#include <string_view>

#include "base/text.h"
#include "config/settings.h"
#include "control/query.h"
#include "control/supervision.h"
#include "log/tb_log.h"
#include "upgrade/check_cycle.h"
#include "upgrade/version_list.h"

namespace {

constexpr time_t CHECK_LIMIT = 20;  // seconds
constexpr useconds_t CHECK_STEP = 100000;

void answer_mode(const boa_request& request) {
    char state[CLOUDAE_STATE_SIZE] = {};
    char body[512] = {};
    format_text(body,
                "{\"result\":\"%s\",\"code\":%d,\"id80000\":\"%s\",\"id80001\":\"%s\","
                "\"id80014\":\"%s\",\"id80020\":true}",
                "ok", 0, pluginmgr_config.cloudserver, getCloudaeStats(state),
                pluginmgr_config.UMS_SERVER);
    send_reply(request, body);
}

void answer_versions(const boa_request& request) {
    char body[REPLY_BODY] = {};
    const size_t length = dumpVersionStatus(body, sizeof body);
    send_reply(request, {body, length});
}

void take_language(std::string_view query) {
    const std::optional<std::string_view> language = query_value(query, "&language=");
    if (!language) {
        return;
    }
    if (language->starts_with("chinese")) {
        set_text(pluginmgr_config.language, "zh");
    } else if (language->starts_with("english")) {
        set_text(pluginmgr_config.language, "en");
    }
}

// In the modes without an upgrade thread nobody clears the flag, and the wait runs out.
void wait_for_check() {
    const time_t start = time(nullptr);
    while (upgrade_check_flag == 1) {
        usleep(CHECK_STEP);
        const time_t passed = time(nullptr) - start;
        if (passed > CHECK_LIMIT || passed < -CHECK_LIMIT) {
            log_err("handle_config_get", __LINE__, "check plugin update timeout");
            break;
        }
    }
}

void answer_after_check(const boa_request& request) {
    take_language(request.query());
    upgrade_check_flag = 1;
    wait_for_check();
    answer_versions(request);
}

struct parameter {
    int id;
    void (*answer)(const boa_request& request);
};

constexpr parameter parameters[] = {
    {80000, answer_mode},
    {80005, answer_versions},
    {80025, answer_after_check},
};

}  // namespace

void handle_config_get(const boa_request& request) {
    const std::optional<std::string_view> text = query_value(request.query(), "id=");
    if (!text) {
        return;
    }
    const int id = to_int(*text);
    for (const parameter& row : parameters) {
        if (row.id == id) {
            row.answer(request);
            break;
        }
    }
}
