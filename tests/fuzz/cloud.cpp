// SPDX-License-Identifier: Apache-2.0
// Answers of the cloud platform, the accounts server and the PBX service through each consumer of
// their JSON, over the daemon's own exchange, in each state of the registration.
#include <iterator>

#include "base/text.h"
#include "cloud/events.h"
#include "cloud/pbx.h"
#include "cloud/registration.h"
#include "config/settings.h"
#include "upgrade/app_info.h"
#include "upgrade/check_cycle.h"
#include "upgrade/version_list.h"
#include "world.h"

namespace {

constexpr const char* EVENTS[] = {
    "devinfo",         "get_deviceID",       "active",     "report_uptime", "report_upgrade",
    "report_versions", "report_cloudserver", "bind_token", "bind_actoken",  "key_unbind",
    "cloudLogin",      "create_authcode",    "app_report", "get_authcode",  "delete_authcode"};

void perform_event(unsigned which) {
    add_upgrade_report("report");
    (void)pluginmgr_api_with_param(nullptr, EVENTS[which % std::size(EVENTS)], "a=b");
}

void register_device(unsigned /*which*/) {
    activation_state = active_device();
}

void check_for_upgrades(unsigned /*which*/) {
    if (first_app() == nullptr) {
        addVersionToLocal("cloudae", "1.0.0");
    }
    app_info* entry = first_app();
    entry->remote.reset();
    entry->status = APP_IDLE;
    upgrade_check_flag = 1;
    checkAllAppVersion(&upgrade_check_flag);
    require(entry->remote != nullptr || entry->status == APP_CHECK_FAILED,
            "an offer, or a failure");
    require(entry->status != APP_IDLE || !is_not_newer(entry, entry->remote.get()),
            "what is newer");
    world.answer.clear();  // a last exchange that fails closes the thread's connection
    drop_upgrade_connection();
    app_info none;
    (void)getRemoteAppInfo("cloudae", &none);
}

int read_extensions() {
    char extensions[1024] = {};
    char join_prefix[16] = {};
    return quorvel_get_kq_extensions("0", extensions, sizeof extensions, join_prefix,
                                     sizeof join_prefix);
}

int fetch_qr_code() {
    char token[PBX_QR_TOKEN_SIZE] = {};
    return quorvel_active_qr(token);
}

constexpr int (*PBX[])() = {fetch_qr_code,
                            [] { return quorvel_check_qr_active_status("token"); },
                            [] { return quorvel_active("1234"); },
                            quorvel_get_kq_config,
                            quorvel_get_kq_sipstatus,
                            read_extensions};

void ask_pbx(unsigned which) {
    (void)PBX[which % std::size(PBX)]();
}

constexpr void (*CONSUMERS[])(unsigned which) = {perform_event, register_device, check_for_upgrades,
                                                 ask_pbx};

}  // namespace

void body(fuzz_input& in) {
    const unsigned what = in.byte();
    const unsigned known = in.byte();
    put_file("/dev/rkflash0p4", "ethaddr=00:11:22:33:44:55" + std::string(2048, 'x'));
    put_file("/var/log/versions/app", "app:1.0\n");
    put_file(SETTINGS_FILE, "[Config]\n");
    set_text(pluginmgr_config.cloudserver, (known & 1U) != 0 ? "on" : "off");
    set_text(pluginmgr_config.device_id, (known & 2U) != 0 ? "0123" : NO_DEVICE_ID);
    set_text(pluginmgr_config.active_state, (known & 4U) != 0 ? "true" : "");
    set_text(pluginmgr_config.device_key, "key");
    set_text(pluginmgr_config.active_token, (known & 8U) != 0 ? "token" : "");
    set_text(pluginmgr_config.api_server, "api.example");
    set_text(pluginmgr_config.accounts_server, "accounts.example");
    set_text(pluginmgr_config.quorvel_server, "pbx.example");
    world.answer = in.rest();
    CONSUMERS[what / 16 % std::size(CONSUMERS)](what % 16);
    require(file_text(SETTINGS_FILE).starts_with("[Config]\n"), "the settings file is whole");
}
