// SPDX-License-Identifier: Apache-2.0
#include "control/app_request.h"

#include <optional>
#include <string_view>

#include "base/result.h"
#include "base/text.h"
#include "control/query.h"
#include "log/tb_log.h"
#include "upgrade/request.h"

namespace {

int act_on_plugin(const char* name, std::string_view action) {
    if (action == "update") {
        const int code = startPluginAppUpdate(name);
        log_msg(LOG_SYSTEM, 1, "handle_app_request", __LINE__, "update pluginName %s, rc %d", name,
                code);
        return code;
    }
    if (action == "cancel") {
        const int code = stopPluginAppUpdate(name);
        log_msg(LOG_SYSTEM, 1, "handle_app_request", __LINE__,
                "cancel pluginName %s upgrade, rc %d", name, code);
        return code;
    }
    return ERR_UNKNOWN_EVENT;
}

void handle_plugin(const boa_request& request) {
    const std::optional<std::string_view> value = query_value(request.query(), "pluginName=");
    if (!value) {
        return;
    }
    char name[128] = {};
    set_text(name, *value);
    const std::string_view action = query_value(request.query(), "pluginAction=").value_or("");
    send_result(request, act_on_plugin(name, action));
}

}  // namespace

void handle_app_request(const boa_request& request) {
    handle_plugin(request);
}
