// SPDX-License-Identifier: Apache-2.0
// A request datagram through the whole dispatch, in each run mode, with a cloud that answers and a
// SIP account file that holds what the input says. The settings file survives the requests.
#include <cstring>

#include "base/text.h"
#include "cloud/events.h"
#include "cloud/pbx.h"
#include "config/settings.h"
#include "control/boa_protocol.h"
#include "upgrade/app_info.h"
#include "upgrade/version_list.h"
#include "world.h"

namespace {

constexpr const char* MODES[] = {"off", "on", "ums", "disable"};

void prepare(unsigned what) {
    if (first_app() == nullptr) {
        addVersionToLocal("cloudae", "1.0.0");
    }
    app_info_ptr offer(new app_info);
    offer->version = heap_text("1.0.1");
    offer->rel_info = heap_text("notes");
    first_app()->remote.swap(offer);
    set_text(pluginmgr_config.cloudserver, MODES[what % 4]);
    set_text(pluginmgr_config.quorvel_server, "pbx.example");
    set_text(pluginmgr_config.quorvel_token, (what & 8U) != 0 ? "token" : "");
    set_text(pluginmgr_config.api_server, (what & 4U) != 0 ? "api.example" : "");
    set_text(pluginmgr_config.accounts_server, "accounts.example");
    activation_state = (what & 16U) != 0 ? 1004 : 0;
    pluginmgr_config.quorvel_sipuser = heap_text((what & 32U) != 0 ? "7" : nullptr);
    put_file(SETTINGS_FILE, "[Config]\ncloudserver=off\nuser_apiserver=a.example|10.0.0.1\n");
    put_file("/dev/rkflash0p4", "ethaddr=00:11:22:33:44:55" + std::string(2048, 'x'));
}

}  // namespace

void body(fuzz_input& in) {
    prepare(in.byte());
    boa_request request = {};
    in.part().copy(request.bytes, REQUEST_SIZE);
    put_file(PBX_CONFIG_FILE, in.part());
    world.answer = in.rest();
    (void)http_handle_query(request, CONTROL_PORT);
    require(file_text(SETTINGS_FILE).starts_with("[Config]\n"), "the settings file is whole");
}
