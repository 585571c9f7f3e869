// SPDX-License-Identifier: Apache-2.0
#include "control/config_set.h"

#include <unistd.h>

#include <optional>
#include <span>
#include <string_view>

#include "base/result.h"
#include "base/shell.h"
#include "base/text.h"
#include "cloud/accounts.h"
#include "cloud/events.h"
#include "config/ini.h"
#include "config/settings.h"
#include "control/app_action.h"
#include "control/query.h"
#include "device/hosts.h"
#include "log/tb_log.h"

namespace {

constexpr const char* FUNCTION = "handle_config_set";

// What the steps of one request leave to each other.
struct change {
    const boa_request& request;
    bool needs_restart = false;
    bool account_login = false;
    bool account_cut = false;  // user or password did not fit
    bool token_cut = false;    // nor did the token
    int code = -1;             // of the last cloud event
};

std::optional<std::string_view> value_of(const change& now, std::string_view key) {
    return query_value(now.request.query(), key);
}

int length_of(std::string_view value) {
    return static_cast<int>(value.size());
}

enum class privacy { open, secret };

// The value of a parameter, logged as it was received; a secret one mostly by its length alone.
std::optional<std::string_view> logged_value(const change& now, std::string_view key,
                                             privacy kind = privacy::open,
                                             const char* prefix = "") {
    const std::optional<std::string_view> value = value_of(now, key);
    if (value) {
        const bool is_shown = kind == privacy::open || log_shows_secrets();
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__, "%s%.*s%.*s, len=%d", prefix,
                length_of(key), key.data(), is_shown ? length_of(*value) : 0, value->data(),
                length_of(*value));
    }
    return value;
}

// Copies a value into its field. One that does not fit is logged and changes nothing.
bool take(std::span<char> field, std::string_view key, std::string_view value) {
    if (value.size() >= field.size()) {
        log_err(FUNCTION, __LINE__, "%.*s has %d characters, at most %zu, not taken",
                length_of(key) - 1, key.data(), length_of(value), field.size() - 1);
        return false;
    }
    copy_text(field.data(), field.size(), value);
    return true;
}

void store(const char* key, const char* value) {
    ini_set(SETTINGS_FILE, "Config", key, value);  // in effect in memory all the same
}

void store_mode(const char* mode) {
    set_text(pluginmgr_config.cloudserver, mode);
    store("cloudserver", mode);
}

// Which change of the run mode makes a new process necessary.
enum class restart_when { from_ums_or_disable, always, not_from_ums };

bool is_needed(restart_when when) {
    switch (when) {
        case restart_when::from_ums_or_disable:
            return mode_is("ums") || mode_is("disable");
        case restart_when::not_from_ums:
            return !mode_is("ums");
        case restart_when::always:
            break;
    }
    return true;
}

struct run_mode {
    const char* word;  // compared by prefix, in this order
    restart_when when;
    const char* stops;
    const char* restarts;
};

constexpr run_mode RUN_MODES[] = {
    {"off", restart_when::from_ums_or_disable, "cloudae", "cloudsafety"},
    {"disable", restart_when::always, "cloudae", "cloudsafety"},
    {"on", restart_when::from_ums_or_disable, "cloudsafety", "cloudae"},
    {"ums", restart_when::not_from_ums, "cloudsafety", "cloudae --ums"},
};

void set_run_mode(change& now) {
    const std::optional<std::string_view> value = value_of(now, "id80000=");
    if (!value) {
        return;
    }
    for (const run_mode& mode : RUN_MODES) {
        if (value->starts_with(mode.word)) {
            now.needs_restart = is_needed(mode.when);
            store_mode(mode.word);
            (void)do_app_action(mode.stops, "stop");
            (void)do_app_action(mode.restarts, "restart");
            break;
        }
    }
    now.code = pluginmgr_api(nullptr, "report_cloudserver");
    send_result(now.request, 0);
}

void set_ums_token(change& now) {
    if (!mode_is("ums")) {
        return;
    }
    const auto value = logged_value(now, "id80007=", privacy::secret, "ums ");
    if (value && take(pluginmgr_config.ums_active_token, "id80007=", *value)) {
        store("ums_active_token", pluginmgr_config.ums_active_token);
    }
}

// An agent server of one's own means mode "ums", none means "on".
void set_ums_server(change& now) {
    const auto value = logged_value(now, "id80014=");
    if (!value) {
        return;
    }
    if (!take(pluginmgr_config.UMS_SERVER, "id80014=", *value)) {
        send_result(now.request, ERR_TOO_LONG);
        return;
    }
    ini_set(AGENT_SETTINGS_FILE, "Config", "UMS_SERVER", pluginmgr_config.UMS_SERVER);
    const bool was_ums = mode_is("ums");
    if (value->empty()) {
        now.needs_restart = now.needs_restart || was_ums;
        store_mode("on");
        (void)do_app_action("cloudae", "restart");
    } else {
        now.needs_restart = now.needs_restart || !was_ums;
        store_mode("ums");
        (void)do_app_action("cloudae --ums", "restart");
    }
    send_result(now.request, 0);
}

void restart_if_needed(const change& now) {
    if (now.needs_restart) {
        log_msg(LOG_SYSTEM, LEVEL_ALWAYS, FUNCTION, __LINE__,
                " pluginmgr run mode change to %s, try restart!!!", pluginmgr_config.cloudserver);
        run_shell("sleep 1 && /var/run/pluginmgr &");
        _exit(0);  // not exit(): its destructors would race with the other threads
    }
}

void set_account_user(change& now) {
    if (const auto value = logged_value(now, "id80003=", privacy::secret)) {
        now.account_cut = !take(account_user, "id80003=", *value);
    }
}

void set_account_password(change& now) {
    if (const auto value = logged_value(now, "id80004=", privacy::secret)) {
        now.account_cut = !take(account_password, "id80004=", *value) || now.account_cut;
        now.account_login = true;
    }
}

void set_active_token(change& now) {
    if (mode_is("ums")) {
        return;
    }
    if (const auto value = logged_value(now, "id80007=", privacy::secret)) {
        now.token_cut = !take(pluginmgr_config.active_token, "id80007=", *value);
        now.account_login = false;
    }
}

int bind_by_token() {
    const int code = pluginmgr_api(nullptr, "bind_actoken");
    if (code == 0) {
        store("active_token", pluginmgr_config.active_token);
    }
    return code;
}

int login_and_bind() {
    const int code = pluginmgr_api(nullptr, "cloudLogin");
    return code != 0 ? code : pluginmgr_api(nullptr, "bind_token");
}

// What is there from before would bind to another account.
int bind(const change& now) {
    if (now.account_login ? now.account_cut : now.token_cut) {
        return ERR_TOO_LONG;
    }
    return now.account_login ? login_and_bind() : bind_by_token();
}

int unbind() {
    const int code = pluginmgr_api(nullptr, "key_unbind");
    if (code == 0) {
        set_text(pluginmgr_config.active_token, "");
        store("active_token", "");
    }
    return code;
}

void set_binding(change& now) {
    const auto value = value_of(now, "id80002=");
    if (!value) {
        return;
    }
    if (value->starts_with("true")) {
        now.code = bind(now);
    } else if (value->starts_with("false")) {
        now.code = unbind();
    }
    send_result(now.request, now.code, true);
}

void set_pbx_service(change& now) {
    const auto value = logged_value(now, "id80035=");
    if (!value) {
        return;
    }
    if (!take(pluginmgr_config.quorvel_service, "id80035=", *value)) {
        send_result(now.request, ERR_TOO_LONG);
        return;
    }
    store("quorvel_service", pluginmgr_config.quorvel_service);
    send_result(now.request, 0);
}

// A server that the user pins to an address: "host|address" in the settings, a line in
// /etc/hosts. The wording of the first message differs between the two; web pages look for it.
struct user_server {
    const char* id;
    const char* key;
    const char* old_format;
    const char* new_format;
    const char* empty_text;
};

constexpr user_server USER_SERVERS[] = {
    {"id80037=", "user_sipserver", "id80037 old value,ip:%s,domain:%s",
     "user_sipserver(id80037) new value,ip:%s,domain:%s",
     "user_sipserver(id80037) new value is empty"},
    {"id80038=", "user_apiserver", "user_apiserver(id80038) old value,ip:%s,domain:%s",
     "user_apiserver(id80038) new value,ip:%s,domain:%s",
     "user_apiserver(id80038) new value is empty"},
};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

void log_pin(const char* format, const server_pin& pin) {
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__, format, pin.address, pin.host);
}

#pragma GCC diagnostic pop

void move_pin(const user_server& which, const char* old_value, const char* new_value) {
    if (!is_empty(old_value)) {
        const server_pin old_pin = split_server_pin(old_value);
        log_pin(which.old_format, old_pin);
        if (is_whole(old_pin)) {
            (void)delete_domain_in_hosts(old_pin.address, old_pin.host);
        }
    }
    if (is_empty(new_value)) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__, "%s", which.empty_text);
        return;
    }
    const server_pin new_pin = split_server_pin(new_value);
    log_pin(which.new_format, new_pin);
    if (is_whole(new_pin)) {
        (void)add_domain_to_hosts(new_pin.address, new_pin.host);
    }
}

void set_user_server(change& now, const user_server& which) {
    const auto value = logged_value(now, which.id);
    if (!value) {
        return;
    }
    if (!split_server_pin(*value).fits) {
        send_result(now.request, ERR_TOO_LONG);
        return;
    }
    char new_value[SERVER_PIN_SIZE] = {};
    char old_value[SERVER_PIN_SIZE] = {};
    set_text(new_value, *value);
    // A value that is not there counts as empty.
    (void)ini_get(SETTINGS_FILE, "Config", which.key, old_value, sizeof old_value);
    if (text_of(old_value) != text_of(new_value)) {
        move_pin(which, old_value, new_value);
    }
    store(which.key, new_value);
    send_result(now.request, 0);
}

}  // namespace

void handle_config_set(const boa_request& request) {
    change now = {request};
    set_run_mode(now);
    set_ums_token(now);
    set_ums_server(now);
    restart_if_needed(now);
    set_account_user(now);
    set_account_password(now);
    set_active_token(now);
    set_binding(now);
    set_pbx_service(now);
    for (const user_server& which : USER_SERVERS) {
        set_user_server(now, which);
    }
}
