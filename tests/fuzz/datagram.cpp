// SPDX-License-Identifier: Apache-2.0
// A request datagram through the whole dispatch, in each run mode, with a cloud that answers what
// the input says. The settings file survives the requests.
#include <algorithm>
#include <cstring>

#include "base/text.h"
#include "cloud/events.h"
#include "config/settings.h"
#include "control/boa_protocol.h"
#include "upgrade/app_info.h"
#include "upgrade/version_list.h"
#include "world.h"

namespace {

constexpr const char* MODES[] = {"off", "on", "ums", "disable"};

app_info_ptr record(const char* name, const char* version) {
    app_info_ptr made(new app_info);
    made->app_name = heap_text(name);
    made->version = heap_text(version);
    return made;
}

void prepare(unsigned what) {
    if (first_app() == nullptr) {
        append_app(record("cloudae", "1.0.0"));
    }
    app_info* entry = first_app();
    entry->remote = record("cloudae", "1.0.1");
    entry->remote->rel_info = heap_text("notes");
    set_text(pluginmgr_config.cloudserver, MODES[what % 4]);
    set_text(pluginmgr_config.quorvel_service, "on");
    set_text(pluginmgr_config.quorvel_server, "pbx.example");
    set_text(pluginmgr_config.quorvel_token, (what & 8U) != 0 ? "token" : "");
    set_text(pluginmgr_config.api_server, (what & 4U) != 0 ? "api.example" : "");
    set_text(pluginmgr_config.accounts_server, "accounts.example");
    activation_state = (what & 16U) != 0 ? 1004 : 0;
    put_file(SETTINGS_FILE, "[Config]\ncloudserver=off\nuser_apiserver=a.example|10.0.0.1\n");
    put_file("/dev/rkflash0p4", std::string("ethaddr=00:11:22:33:44:55") + std::string(2048, 'x'));
}

void body(fuzz_input& in) {
    prepare(in.byte());
    static std::string datagram;  // a restart leaves without its destructor
    datagram = in.part();
    world.answer = in.rest();
    boa_request request = {};
    memcpy(request.bytes, datagram.data(), std::min(datagram.size(), REQUEST_SIZE));
    (void)http_handle_query(request, CONTROL_PORT);
    require(file_text(SETTINGS_FILE).starts_with("[Config]\n"), "the settings file is whole");
}

}  // namespace

FUZZ_TARGET(body)
