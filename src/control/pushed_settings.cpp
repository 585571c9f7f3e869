// SPDX-License-Identifier: Apache-2.0
#include "control/pushed_settings.h"

#include <cstring>

#include "base/text.h"
#include "cloud/events.h"
#include "config/settings.h"
#include "config/update_config.h"
#include "device/program.h"
#include "log/tb_log.h"
#include "net/http.h"
#include "net/transport.h"
#include "upgrade/check_cycle.h"

namespace {

void forget_server(https_conn* conn) {
    close_https(conn);
    conn->server_address = 0;
}

void take_run_mode(const settings& pushed) {
    if (!take_pushed_text(pluginmgr_config.cloudserver, text_of(pushed.cloudserver),
                          "cloudserver")) {
        return;
    }
    const bool off = strcmp(pluginmgr_config.cloudserver, "off") == 0;
    (void)act_on_program("cloudae", off ? "stop" : "restart");  // the agent watch looks after it
    log_plain(LOG_SYSTEM, LEVEL_NOTICE, " cloudae %s since autoupd update",
              pluginmgr_config.cloudserver);
}

// A pushed token, also an unchanged one, is the occasion to finish activation and binding.
void take_active_token(const settings& pushed) {
    settings& live = pluginmgr_config;
    if (is_empty(pushed.active_token)) {
        return;
    }
    if (take_pushed_text(live.active_token, text_of(pushed.active_token), "active_token")) {
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
    if (take_pushed_number(&live.conn_timeout, pushed.conn_timeout, "Config", "conn_timeout")) {
        log_plain(LOG_SYSTEM, LEVEL_NOTICE, " conn_timeout change to %d since autoupd update",
                  live.conn_timeout);
    }
    // No lower limit here, unlike at start-up: a push may ask for short cycles.
    if (take_pushed_number(&live.checkcycle, pushed.checkcycle, "Update", "checkcycle")) {
        log_plain(LOG_SYSTEM, LEVEL_NOTICE, " checkcycle change to %d since autoupd update",
                  live.checkcycle);
    }
}

void take_servers(const settings& pushed) {
    settings& live = pluginmgr_config;
    if (take_pushed_text(live.api_server, text_of(pushed.api_server), "api_server")) {
        log_plain(LOG_SYSTEM, LEVEL_NOTICE, " api_server change to %s since autoupd update",
                  live.api_server);
        {
            const client_lock lock;
            forget_server(&api_connection);
        }
        drop_upgrade_connection();
    }
    if (take_pushed_text(live.accounts_server, text_of(pushed.accounts_server),
                         "accounts_server")) {
        log_plain(LOG_SYSTEM, LEVEL_NOTICE, " accounts_server change to %s since autoupd update",
                  live.accounts_server);
        forget_server(&accounts_connection);
    }
}

}  // namespace

int handle_update_config() {
    settings pushed = {};
    if (!read_pushed_settings(&pushed)) {
        return 0;
    }
    take_run_mode(pushed);
    take_active_token(pushed);
    take_numbers(pushed);
    take_servers(pushed);
    remove_pushed_settings();
    return 0;
}
