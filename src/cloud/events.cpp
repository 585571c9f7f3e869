// SPDX-License-Identifier: Apache-2.0
#include "cloud/events.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <ctime>
#include <iterator>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "base/handles.h"
#include "base/json.h"
#include "base/result.h"
#include "base/text.h"
#include "cloud/accounts.h"
#include "codec/encode.h"
#include "codec/sha1.h"
#include "config/ini.h"
#include "config/settings.h"
#include "deployment.h"
#include "device/identity.h"
#include "device/program.h"
#include "device/versions.h"
#include "log/tb_log.h"
#include "net/http.h"

std::atomic<int> activation_state = 0;

namespace {

constexpr size_t VERSION_LIST_SIZE = 4096;
constexpr size_t SIGNED_QUERY_SIZE = 160;
constexpr int SIGN_DEVICE = 1;
constexpr int SIGN_UNUSED = 2;

// Reports that wait, the oldest first; under the client lock. Enough for several upgrades of every
// plug-in of a device between two that can be sent.
constexpr size_t MOST_REPORTS = 64;
text_ptr upgrade_reports[MOST_REPORTS];
size_t report_count = 0;

text_ptr first_report() {
    text_ptr first = std::move(upgrade_reports[0]);
    std::move(upgrade_reports + 1, std::end(upgrade_reports), upgrade_reports);
    report_count -= first ? 1 : 0;
    return first;
}

// Codes that tell that a request has not left the device: its report may still be sent once.
bool was_not_sent(int code) {
    return code == ERR_SOCKET || code == ERR_RESOLVE || code == ERR_CONNECT ||
           code == ERR_NOT_CONNECTED;
}

// It was the first, and nobody has taken one since: the client lock is held.
void put_back(text_ptr report) {
    std::move_backward(upgrade_reports, std::end(upgrade_reports) - 1, std::end(upgrade_reports));
    upgrade_reports[0] = std::move(report);
    report_count++;
}

struct event_call {
    const char* name = nullptr;
    const char* param = nullptr;
    char device_id[sizeof(settings::device_id)] = {};
    const char* input = "";  // what prepare found
    char signed_query[SIGNED_QUERY_SIZE] = {};
    text_ptr versions;
};

enum class arg : uint8_t {
    none,
    device_id,
    input,
    platform,
    product_type,
    product_version,
    cloudserver,
    authcode,
};

enum class new_id : uint8_t { never, when_none, always };

struct answer_value {
    const char* key = nullptr;
    std::span<char> field = {};
};

struct event {
    std::string_view name;
    const char* method = "";
    std::string_view path = {};  // each "%s" stands for the next argument
    std::array<arg, 5> args = {};
    const char* auth = "";
    int (*prepare)(event_call& call) = nullptr;  // non-zero ends the event
    std::array<answer_value, 2> values = {};
    bool stores_values = false;  // in the settings file, under the same keys
    new_id takes_id = new_id::never;
    bool sends_report = false;
    bool asks_api = true;  // false: prepare does it all
};

int unknown_event(const event_call& call) {
    log_err("pluginmgr_api_with_param", __LINE__, "perform <%s> event failed!!!", call.name);
    return ERR_UNKNOWN_EVENT;
}

int prepare_signed_query(event_call& call) {
    char timestamp[24] = {};
    char mac[MAC_TEXT_SIZE] = {};
    char signature[100] = {};
    format_text(timestamp, "%lld", static_cast<long long>(time(nullptr)));
    if (get_mac_text(&mac) != 0) {
        log_err(__func__, __LINE__, "cann't get device mac address");
        return ERR_NO_MAC;
    }
    (void)sign_request(SIGN_DEVICE, mac, timestamp, signature, sizeof signature);  // kind 1 is 0
    format_text(call.signed_query, "?device_mac=%s&timestamp=%s&sign=%s", mac, timestamp,
                signature);
    call.input = call.signed_query;
    return 0;
}

int prepare_uptime(event_call& call) {
    if (read_uptime(pluginmgr_config.uptime, sizeof pluginmgr_config.uptime) != 0) {
        return ERR_UNKNOWN_EVENT;
    }
    call.input = pluginmgr_config.uptime;
    return 0;
}

int prepare_param(event_call& call) {
    if (call.param == nullptr) {
        return unknown_event(call);
    }
    call.input = call.param;
    return 0;
}

int prepare_versions(event_call& call) {
    char list[VERSION_LIST_SIZE] = {};
    if (list_versions(list, sizeof list) != 0 || is_empty(list)) {
        return ERR_SEND;
    }
    call.versions = text_ptr(url_encode(list, nullptr));
    if (!call.versions) {
        return ERR_SEND;
    }
    call.input = call.versions.get();
    return 0;
}

int log_in(event_call& /*call*/) {
    return is_empty(pluginmgr_config.accounts_server)
               ? ERR_NO_ACCOUNTS
               : login_accounts(pluginmgr_config.accounts_server);
}

// Names are compared by prefix, in this order.
constexpr event events[] = {
    {.name = "devinfo",
     .method = "GET",
     .path = "/v1/devices/%s",
     .args = {arg::device_id},
     .auth = "KEY",
     .values = {{{"bind_status", pluginmgr_config.bind_status},
                 {"user_id", pluginmgr_config.user_id}}}},
    {.name = "get_deviceID",
     .method = "POST",
     .path = "/v1/devices/%s/actions/activate%s&platform=%s&product_type=%s",
     .args = {arg::device_id, arg::input, arg::platform, arg::product_type},
     .auth = "TOKEN",
     .prepare = prepare_signed_query,
     .takes_id = new_id::always},
    {.name = "active",
     .method = "POST",
     .path = "/v1/devices/%s/actions/activate%s",
     .args = {arg::device_id, arg::input},
     .auth = "TOKEN",
     .prepare = prepare_signed_query,
     .values = {{{"device_key", pluginmgr_config.device_key},
                 {"active_state", pluginmgr_config.active_state}}},
     .stores_values = true,
     .takes_id = new_id::when_none},
    {.name = "report_uptime",
     .method = "POST",
     .path = "/v1/services/cloudwatch/metrics"
             "?metric_id=%s&metric_type=device&metric_name=deviceBoot&uptime=%s",
     .args = {arg::device_id, arg::input},
     .auth = "KEY",
     .prepare = prepare_uptime},
    {.name = "report_upgrade",
     .method = "POST",
     .path = "/v1/services/cloudwatch/metrics"
             "?metric_id=%s&metric_type=device&metric_name=agentUpgrade",
     .args = {arg::device_id},
     .auth = "KEY",
     .sends_report = true},
    {.name = "app_report",
     .method = "PUT",
     .path = "/v1/devices/%s?%s",
     .args = {arg::device_id, arg::input},
     .auth = "KEY",
     .prepare = prepare_param},
    {.name = "report_versions",
     .method = "PUT",
     .path = "/v1/devices/%s?versions=%s",
     .args = {arg::device_id, arg::input},
     .auth = "KEY",
     .prepare = prepare_versions},
    {.name = "report_cloudserver",
     .method = "PUT",
     .path = "/v1/devices/%s"
             "?cloud_server=%s&product_type=%s&platform=%s&product_version=%s",
     .args = {arg::device_id, arg::cloudserver, arg::product_type, arg::platform,
              arg::product_version},
     .auth = "KEY"},
    {.name = "bind_token",
     .method = "POST",
     .path = "/v1/devices/%s/actions/bind",
     .args = {arg::device_id},
     .auth = "pass_TOKEN",
     .values = {{{"bind_status", pluginmgr_config.bind_status}}}},
    {.name = "bind_actoken",
     .method = "POST",
     .path = "/v1/devices/%s/actions/bind",
     .args = {arg::device_id},
     .auth = "TOKEN",
     .values = {{{"bind_status", pluginmgr_config.bind_status}}}},
    {.name = "key_unbind",
     .method = "DELETE",
     .path = "/v1/devices/%s/actions/bind",
     .args = {arg::device_id},
     .auth = "KEY",
     .values = {{{"bind_status", pluginmgr_config.bind_status}}}},
    {.name = "cloudLogin", .prepare = log_in, .asks_api = false},
    {.name = "create_authcode",
     .method = "POST",
     .path = "/v1/devices/authcodes?device_id=%s",
     .args = {arg::device_id},
     .auth = "KEY",
     .values = {{{"device_authcode", pluginmgr_config.device_authcode}}}},
    {.name = "get_authcode",
     .method = "GET",
     .path = "/v1/devices/authcodes?device_id=%s",
     .args = {arg::device_id},
     .auth = "KEY",
     .values = {{{"device_authcode", pluginmgr_config.device_authcode},
                 {"grantee_id", pluginmgr_config.grantee_id}}}},
    {.name = "delete_authcode",
     .method = "DELETE",
     .path = "/v1/devices/authcodes/%s?device_id=%s",
     .args = {arg::authcode, arg::device_id},
     .auth = "KEY",
     .values = {{{"device_authcode", pluginmgr_config.device_authcode}}}},
};

const event* find_event(const char* name) {
    for (const event& row : events) {
        if (has_prefix(name, row.name)) {
            return &row;
        }
    }
    return nullptr;
}

const char* argument_text(arg which, const event_call& call) {
    switch (which) {
        case arg::device_id:
            return call.device_id;
        case arg::input:
            return call.input;
        case arg::platform:
            return pluginmgr_config.device_model;
        case arg::product_type:
            return pluginmgr_config.hw_revision;
        case arg::product_version:
            return pluginmgr_config.sw_revision;
        case arg::cloudserver:
            return pluginmgr_config.cloudserver;
        case arg::authcode:
            return pluginmgr_config.device_authcode;
        case arg::none:
            break;
    }
    return "";
}

// Control characters of a foreign text are escaped: they would end the line.
std::string build_path(const event& what, const event_call& call) {
    std::string path;
    std::string_view rest = what.path;
    for (const arg which : what.args) {
        const size_t gap = rest.find("%s");
        if (gap == std::string_view::npos) {
            break;
        }
        path += rest.substr(0, gap);
        path += one_line(argument_text(which, call));
        rest.remove_prefix(gap + 2);
    }
    path += rest;
    return path;
}

// An id that cannot be kept in flash makes the event fail, although it is in effect: on purpose.
int take_device_id(json_object* json) {
    char device_id[sizeof pluginmgr_config.device_id] = {};
    if (get_param_from_json_resp(json, "device_id", device_id, sizeof device_id) != 0 ||
        is_empty(device_id)) {
        log_err(__func__, __LINE__, "havn't device_id");
        return 0;
    }
    log_msg(LOG_API, LEVEL_NOTICE, __func__, __LINE__, "get device_id %s from api server",
            device_id);
    set_text(pluginmgr_config.device_id, device_id);
    const int saved = save_device_id(device_id);
    if (saved == 0 && mode_is("on")) {
        (void)act_on_program("cloudae", "restart");  // whose name is one
    }
    return saved;
}

// What belongs together is taken whole or not at all: a state without its key is none.
bool fits(json_object* json, const event& what) {
    char scratch[sizeof pluginmgr_config.login_token] = {};
    return std::ranges::none_of(what.values, [&](const answer_value& value) {
        const size_t size = std::min(value.field.size(), sizeof scratch);
        return value.key != nullptr &&
               get_param_from_json_resp(json, value.key, scratch, size) == ERR_TOO_LONG;
    });
}

int take_answer(json_object* json, const event& what, const event_call& call) {
    if (what.stores_values && !fits(json, what)) {
        return ERR_TOO_LONG;
    }
    for (const answer_value& value : what.values) {
        if (value.key != nullptr) {
            // What the answer lacks stays as it was.
            (void)get_param_from_json_resp(json, value.key, value.field.data(), value.field.size());
        }
    }
    if (what.stores_values) {
        for (const answer_value& value : what.values) {
            ini_set(SETTINGS_FILE, "Config", value.key, value.field.data());
        }
    }
    const bool had_no_id = text_of(call.device_id) == NO_DEVICE_ID;
    if (what.takes_id == new_id::always || (what.takes_id == new_id::when_none && had_no_id)) {
        return take_device_id(json);
    }
    return 0;
}

int perform(https_conn* conn, const event& what, const event_call& call) {
    const client_lock lock;
    text_ptr report;  // sent once, whatever the answer
    if (what.sends_report) {
        report = first_report();
        if (!report) {
            return 0;
        }
    }
    const std::string request =
        construct_request(what.method, build_path(what, call).c_str(), report.get(), what.auth);
    json_ptr json;
    const int exchanged =
        new_https_request_2(conn, pluginmgr_config.api_server, request.c_str(), nullptr, &json);
    if (report && was_not_sent(exchanged)) {
        put_back(std::move(report));
    }
    if (exchanged != 0) {
        return exchanged;
    }
    const int code = get_response_code_from_json_resp(json.get());
    return code == 0 ? take_answer(json.get(), what, call) : code;
}

}  // namespace

int pluginmgr_api_with_param(https_conn* conn, const char* name, const char* param) {
    if (is_empty(pluginmgr_config.api_server)) {
        return ERR_CLOUD_OFF;
    }
    const int pending = activation_state;
    if (pending != 0) {
        return pending;
    }
    if (mode_is("disable")) {
        return ERR_CLOUD_OFF;
    }
    event_call call = {};
    call.name = name;
    call.param = param;
    set_text(call.device_id, pluginmgr_config.device_id);
    log_plain(LOG_API, LEVEL_NOTICE, " %d perform <%s> event.", static_cast<int>(getpid()), name);
    const event* what = find_event(name);
    if (what == nullptr) {
        return unknown_event(call);
    }
    // Before the lock is taken: reading the flash may wait for ten seconds.
    const int prepared = what->prepare == nullptr ? 0 : what->prepare(call);
    return prepared != 0 || !what->asks_api ? prepared : perform(conn, *what, call);
}

int pluginmgr_api(https_conn* conn, const char* name) {
    return pluginmgr_api_with_param(conn, name, nullptr);
}

int sign_request(int kind, const char* mac, const char* timestamp, char* out, size_t size) {
    if (kind == SIGN_UNUSED) {
        return FAILED;
    }
    // The key is used as its 64 characters, not decoded.
    constexpr std::string_view key = PLUGINMGR_API_SIGN_KEY;
    const std::string message = joined({mac, timestamp});
    uint8_t digest[SHA1_DIGEST_SIZE] = {};
    hmac_sha1(key.data(), key.size(), message.data(), message.size(), digest);
    hex_encode(digest, sizeof digest, out, size);
    return 0;
}

void add_upgrade_report(const char* text) {
    const client_lock lock;
    if (report_count == MOST_REPORTS) {
        const text_ptr oldest = first_report();
        log_err(__func__, __LINE__, "too many reports wait, lost: %s", oldest.get());
    }
    upgrade_reports[report_count] = heap_text(text);
    report_count += upgrade_reports[report_count] ? 1 : 0;
}

bool upgrade_reports_wait() {
    const client_lock lock;
    return report_count > 0;
}

int save_device_id(const char* /*device_id*/) {
    return FAILED;
}
