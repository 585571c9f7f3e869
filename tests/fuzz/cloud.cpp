// SPDX-License-Identifier: Apache-2.0
// Answers of the cloud platform, the accounts server and the PBX service through each consumer of
// their JSON, over the daemon's own exchange.
#include "base/text.h"
#include "cloud/accounts.h"
#include "cloud/events.h"
#include "cloud/pbx.h"
#include "cloud/registration.h"
#include "config/settings.h"
#include "net/http.h"
#include "upgrade/check_cycle.h"
#include "world.h"

namespace {

constexpr const char* EVENTS[] = {"devinfo",         "get_deviceID",   "active",
                                  "report_versions", "key_unbind",     "create_authcode",
                                  "get_authcode",    "delete_authcode"};

void ask_for_upgrade() {
    app_info record;
    (void)getRemoteAppInfo("cloudae", &record);
    (void)is_not_newer(&record, &record);
    (void)dupAppInfo(record);
    world.answer.clear();  // a last exchange that fails closes the thread's connection
    drop_upgrade_connection();
    (void)getRemoteAppInfo("cloudae", &record);
}

void ask_pbx(unsigned what) {
    char token[PBX_QR_TOKEN_SIZE] = {};
    char extensions[1024] = {};
    char join_prefix[16] = {};
    switch (what % 6) {
        case 0:
            (void)quorvel_active_qr(token);
            break;
        case 1:
            (void)quorvel_check_qr_active_status("token");
            break;
        case 2:
            (void)quorvel_active("1234");
            break;
        case 3:
            (void)quorvel_get_kq_config();
            break;
        case 4:
            (void)quorvel_get_kq_sipstatus();
            break;
        default:
            (void)quorvel_get_kq_extensions("0", extensions, sizeof extensions, join_prefix,
                                            sizeof join_prefix);
    }
}

void parse_whole(const std::string& text) {
    const json_ptr json = parse_json(text.c_str());
    char value[16] = {};
    (void)get_response_code_from_json_resp(json.get());
    (void)get_param_from_json_resp(json.get(), "device_id", value, sizeof value);
}

void body(fuzz_input& in) {
    const unsigned what = in.byte();
    put_file("/dev/rkflash0p4", std::string("ethaddr=00:11:22:33:44:55") + std::string(2048, 'x'));
    put_file("/var/log/versions/app", "app:1.0\n");
    put_file(SETTINGS_FILE, "[Config]\n");
    set_text(pluginmgr_config.cloudserver, (what & 128U) != 0 ? "on" : "off");
    set_text(pluginmgr_config.api_server, "api.example");
    set_text(pluginmgr_config.accounts_server, "accounts.example");
    set_text(pluginmgr_config.quorvel_server, "pbx.example");
    set_text(pluginmgr_config.quorvel_service, "on");
    set_text(pluginmgr_config.device_id, NO_DEVICE_ID);
    world.answer = in.rest();
    switch (what / 8 % 5) {
        case 0:
            (void)pluginmgr_api(nullptr, EVENTS[what % 8]);
            break;
        case 1:
            (void)active_device();
            break;
        case 2:
            ask_for_upgrade();
            break;
        case 3:
            ask_pbx(what);
            break;
        default:
            (void)login_accounts("accounts.example");
            parse_whole(world.answer);
    }
}

}  // namespace

FUZZ_TARGET(body)
