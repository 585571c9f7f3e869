// SPDX-License-Identifier: Apache-2.0
#include "control/config_get.h"

#include <unistd.h>

#include <ctime>
#include <optional>
#include <string_view>

#include "base/result.h"
#include "base/text.h"
#include "cloud/events.h"
#include "config/ini.h"
#include "config/settings.h"
#include "control/pbx_state.h"
#include "control/query.h"
#include "control/status_document.h"
#include "control/supervision.h"
#include "device/hosts.h"
#include "log/tb_log.h"
#include "upgrade/check_cycle.h"

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

// devinfo, with one activation in between when the platform no longer knows the device or its
// key. The values of an earlier answer stay when this one fails.
int read_device_record() {
    int code = pluginmgr_api(nullptr, "devinfo");
    if (code == CLOUD_NOT_ACTIVE || code == CLOUD_KEY_REFUSED) {
        (void)pluginmgr_api(nullptr, "active");  // the second reading tells
        code = pluginmgr_api(nullptr, "devinfo");
    }
    return code;
}

void answer_binding(const boa_request& request) {
    const int code = read_device_record();
    char body[512] = {};
    format_text(body, "{\"result\":\"%s\",\"code\":%d,\"id80002\":\"%s\",\"id80006\":\"%s\"}",
                result_word(code), code, pluginmgr_config.bind_status, pluginmgr_config.user_id);
    send_reply(request, body);
}

void answer_authcode(const boa_request& request) {
    int code = read_device_record();
    if (code == 0) {
        code = pluginmgr_api(nullptr, "get_authcode");
    }
    const char* use = is_empty(pluginmgr_config.grantee_id) ? "unused" : "inuse";
    char body[1024] = {};
    format_text(body,
                "{\"result\":\"%s\",\"code\":%d,\"id80002\":\"%s\",\"id80006\":\"%s\","
                "\"id80011\":\"%s\",\"id80012\":\"%s\",\"id80013\":\"%s\"}",
                result_word(code), code, pluginmgr_config.bind_status, pluginmgr_config.user_id,
                pluginmgr_config.device_authcode, use, pluginmgr_config.grantee_id);
    send_reply(request, body);
}

void answer_user_server(const boa_request& request, const char* id, const char* key) {
    char value[SERVER_PIN_SIZE] = {};
    if (ini_get(SETTINGS_FILE, "Config", key, value, sizeof value) != 0 || is_empty(value)) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, "handle_config_get", __LINE__,
                "Get %s(%s) failed or no parameter in config file", key, id);
    }
    char body[SERVER_PIN_SIZE + 64] = {};
    format_text(body, "{\"result\":\"%s\",\"code\":%d,\"%s\":\"%s\"}", "ok", 0, id, value);
    send_reply(request, body);
}

void answer_sip_server(const boa_request& request) {
    answer_user_server(request, "id80037", "user_sipserver");
}

void answer_api_server(const boa_request& request) {
    answer_user_server(request, "id80038", "user_apiserver");
}

struct parameter {
    int id;
    void (*answer)(const boa_request& request);
};

constexpr parameter parameters[] = {
    {80000, answer_mode},           {80002, answer_binding},     {80005, answer_versions},
    {80011, answer_authcode},       {80025, answer_after_check}, {80031, answer_pbx_state},
    {80036, answer_pbx_extensions}, {80037, answer_sip_server},  {80038, answer_api_server},
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
