// SPDX-License-Identifier: Apache-2.0
#include "control/boa_protocol.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <optional>

#include "base/text.h"
#include "cloud/events.h"
#include "cloud/registration.h"
#include "config/settings.h"
#include "control/app_request.h"
#include "control/boa_report.h"
#include "control/config_get.h"
#include "control/config_set.h"
#include "control/query.h"
#include "log/tb_log.h"

boa_channel boa;

namespace {

constexpr size_t COOKIE_AT = 8;
constexpr size_t ECHO_WORD_AT = 20;
constexpr size_t MARKER_AT = 24;

struct method {
    std::string_view name;
    void (*handle)(const boa_request& request);
};

constexpr method methods[] = {
    {"gw.config.get", handle_config_get},
    {"gw.config.set", handle_config_set},
    {"gw.boa.report", handle_boa_report},
    {"gw.app.action", handle_app_request},
};

// The query of the web page that shows the state of the PBX service asks for all of these.
constexpr std::string_view PBX_PAGE[] = {"device_vcode", "get_kq_config", "80031", "80035",
                                         "80036"};

bool is_pbx_page(std::string_view query) {
    return std::all_of(std::begin(PBX_PAGE), std::end(PBX_PAGE), [query](std::string_view text) {
        return query.find(text) != std::string_view::npos;
    });
}

void put_word(char* reply, size_t offset, uint32_t value) {
    memcpy(reply + offset, &value, sizeof value);
}

void send_to_peer(const boa_request& request, std::string_view json) {
    char reply[REPLY_SIZE] = {};
    memcpy(reply + REQUEST_HEADER, json.data(), json.size());
    if (request.wants_echo()) {
        put_word(reply, ECHO_WORD_AT, request.echo_word());
        put_word(reply, MARKER_AT, ECHO_MARKER);
    }
    put_word(reply, COOKIE_AT, request.cookie());
    // A lost reply is the web server's time-out.
    (void)sendto(boa.socket, reply, REQUEST_HEADER + json.size(), 0,
                 reinterpret_cast<const sockaddr*>(&boa.peer), boa.peer_length);
}

}  // namespace

uint32_t boa_request::word(size_t offset) const {
    uint32_t value = 0;
    memcpy(&value, bytes + offset, sizeof value);
    return value;
}

void send_reply(const boa_request& request, std::string_view json) {
    json = json.substr(0, REPLY_BODY);
    send_to_peer(request, json);
    log_msg(LOG_SERVICE, LEVEL_DEBUG, __func__, __LINE__, "send - %.*s",
            static_cast<int>(json.size()), json.data());
}

const char* result_word(int code) {
    return code == 0 ? "ok" : "error";
}

void send_result(const boa_request& request, int code, bool trace_length) {
    char body[64] = {};
    format_text(body, "{\"result\":\"%s\",\"code\":%d}", result_word(code), code);
    if (!trace_length) {
        send_reply(request, body);
        return;
    }
    send_to_peer(request, body);
    log_msg(LOG_SERVICE, LEVEL_DEBUG, "handle_config_set", __LINE__, "send - %s(%zu)", body,
            strlen(body));
}

int http_handle_query(const boa_request& request, int /*port*/) {
    const char* query = request.query();
    log_msg(LOG_SERVICE, LEVEL_DEBUG, __func__, __LINE__, "response - %s", query);
    if (activation_state != 0 && !mode_is("ums") && is_pbx_page(query)) {
        activation_state = active_device();
    }
    const std::optional<std::string_view> name = query_value(query, "method=");
    if (!name) {
        return 0;
    }
    log_msg(LOG_SERVICE, LEVEL_TRACE, __func__, __LINE__, "method=%.*s",
            static_cast<int>(name->size()), name->data());
    for (const method& row : methods) {
        if (*name == row.name) {
            row.handle(request);
            break;
        }
    }
    return 0;
}
