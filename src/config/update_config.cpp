// SPDX-License-Identifier: Apache-2.0
#include "config/update_config.h"

#include <sys/stat.h>

#include <cstring>

#include "base/shell.h"
#include "base/text.h"
#include "cloud/events.h"
#include "config/ini.h"
#include "config/settings.h"
#include "control/app_action.h"
#include "log/tb_log.h"
#include "net/http.h"
#include "net/transport.h"
#include "upgrade/check_cycle.h"

namespace {

constexpr size_t NUMBER_TEXT = 16;

// Writes back; a failure leaves the new value in effect until the next start.
void persist(const char* section, const char* key, const char* value) {
    (void)ini_set(SETTINGS_FILE, section, key, value);
}

// Takes over and persists a text that is given and new. False when it is not.
template <size_t N>
bool take_text(char (&live)[N], const char (&pushed)[N], const char* key) {
    if (is_empty(pushed) || text_of(live) == text_of(pushed)) {
        return false;
    }
    set_text(live, text_of(pushed));
    persist("Config", key, live);
    return true;
}

// The same for a number, which is given when above 0.
bool take_number(int32_t* live, int32_t pushed, const char* section, const char* key) {
    if (pushed <= 0 || pushed == *live) {
        return false;
    }
    *live = pushed;
    char text[NUMBER_TEXT] = {};
    format_text(text, "%d", pushed);
    persist(section, key, text);
    return true;
}

void forget_server(https_conn* conn) {
    close_https(conn);
    conn->server_address = 0;
}

void take_run_mode(const settings& pushed) {
    if (!take_text(pluginmgr_config.cloudserver, pushed.cloudserver, "cloudserver")) {
        return;
    }
    const bool off = strcmp(pluginmgr_config.cloudserver, "off") == 0;
    (void)do_app_action("cloudae", off ? "stop" : "restart");  // the agent watch looks after it
    log_plain(LOG_SYSTEM, LEVEL_NOTICE, " cloudae %s since autoupd update",
              pluginmgr_config.cloudserver);
}

// A pushed token, also an unchanged one, is the occasion to finish activation and binding.
void take_active_token(const settings& pushed) {
    settings& live = pluginmgr_config;
    if (is_empty(pushed.active_token)) {
        return;
    }
    if (take_text(live.active_token, pushed.active_token, "active_token")) {
        log_plain(LOG_SYSTEM, LEVEL_NOTICE, " active_token changed since autoupd update");
    }
    if (!has_prefix(live.active_state, "true") || is_empty(live.device_key)) {
        log_plain(LOG_SYSTEM, LEVEL_ALWAYS, " this device need active.");
        (void)pluginmgr_api(nullptr, "active");  // the idle passes try again
    }
    if (has_prefix(live.bind_status, "true")) {
        return;
    }
    const int code = pluginmgr_api(nullptr, "bind_actoken");
    if (code != 0) {
        log_plain(LOG_SYSTEM, LEVEL_NOTICE, " bind failed by active_token, rc = %d", code);
    }
}

void take_numbers(const settings& pushed) {
    settings& live = pluginmgr_config;
    if (take_number(&live.conn_timeout, pushed.conn_timeout, "Config", "conn_timeout")) {
        log_plain(LOG_SYSTEM, LEVEL_NOTICE, " conn_timeout change to %d since autoupd update",
                  live.conn_timeout);
    }
    // No lower limit here, unlike at start-up: a push may ask for short cycles.
    if (take_number(&live.checkcycle, pushed.checkcycle, "Update", "checkcycle")) {
        log_plain(LOG_SYSTEM, LEVEL_NOTICE, " checkcycle change to %d since autoupd update",
                  live.checkcycle);
    }
}

void take_servers(const settings& pushed) {
    settings& live = pluginmgr_config;
    if (take_text(live.api_server, pushed.api_server, "api_server")) {
        log_plain(LOG_SYSTEM, LEVEL_NOTICE, " api_server change to %s since autoupd update",
                  live.api_server);
        {
            const client_lock lock;
            forget_server(&api_connection);
        }
        drop_upgrade_connection();
    }
    if (take_text(live.accounts_server, pushed.accounts_server, "accounts_server")) {
        log_plain(LOG_SYSTEM, LEVEL_NOTICE, " accounts_server change to %s since autoupd update",
                  live.accounts_server);
        forget_server(&accounts_connection);
    }
}

}  // namespace

int handle_update_config() {
    struct stat state = {};
    if (stat(PUSHED_SETTINGS_FILE, &state) != 0) {
        log_msg(LOG_SERVICE, LEVEL_DEBUG, "handle_update_config", 182,
                "Update Config file %s not exist", PUSHED_SETTINGS_FILE);
        return 0;
    }
    settings pushed = {};
    bool taken = false;
    (void)read_update_config(&pushed, PUSHED_SETTINGS_FILE, &taken);  // always 0
    if (!taken) {
        return 0;
    }
    log_msg(LOG_SERVICE, LEVEL_TRACE, "handle_update_config", 187, "Update Config %s,%s,%s",
            pushed.cloudserver, pushed.api_server, pushed.accounts_server);
    take_run_mode(pushed);
    take_active_token(pushed);
    take_numbers(pushed);
    take_servers(pushed);
    run_shell_format("rm -f %s 1>/dev/null 2>&1", PUSHED_SETTINGS_FILE);
    return 0;
}
