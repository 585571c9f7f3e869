// SPDX-License-Identifier: Apache-2.0
#include "control/app_request.h"

#include <optional>
#include <string_view>

#include "base/result.h"
#include "base/text.h"
#include "cloud/events.h"
#include "control/pbx_state.h"
#include "control/query.h"
#include "log/tb_log.h"
#include "upgrade/request.h"

namespace {

int act_on_plugin(const char* name, std::string_view action) {
    if (action == "update") {
        const int code = startPluginAppUpdate(name);
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, "handle_app_request", __LINE__,
                "update pluginName %s, rc %d", name, code);
        return code;
    }
    if (action == "cancel") {
        const int code = stopPluginAppUpdate(name);
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, "handle_app_request", __LINE__,
                "cancel pluginName %s upgrade, rc %d", name, code);
        return code;
    }
    return ERR_UNKNOWN_EVENT;
}

// Each step leaves its code to the next, which may have nothing to do and replies with it.
void handle_plugin(const boa_request& request, int* code) {
    const std::optional<std::string_view> value = query_value(request.query(), "pluginName=");
    if (!value) {
        return;
    }
    char name[128] = {};
    const bool whole = set_text(name, *value);  // a part of it may be another's
    const std::string_view action = query_value(request.query(), "pluginAction=").value_or("");
    *code = whole ? act_on_plugin(name, action) : ERR_TOO_LONG;
    send_result(request, *code);
}

void handle_authcode(const boa_request& request, int* code) {
    const std::optional<std::string_view> value = query_value(request.query(), "authcode=");
    if (!value) {
        return;
    }
    if (value->starts_with("create")) {
        *code = pluginmgr_api(nullptr, "create_authcode");
    } else if (value->starts_with("delete")) {
        *code = pluginmgr_api(nullptr, "delete_authcode");
    }
    send_result(request, *code);
}

void handle_pbx(const boa_request& request) {
    const std::string_view query = request.query();
    if (const auto vcode = query_value(query, "device_vcode=")) {
        activate_pbx(request, *vcode);
    }
    if (const auto action = query_value(query, "quorvel_action=")) {
        act_on_pbx(request, *action);
    }
}

}  // namespace

void handle_app_request(const boa_request& request) {
    int code = FAILED;
    handle_plugin(request, &code);
    handle_authcode(request, &code);
    handle_pbx(request);
}
