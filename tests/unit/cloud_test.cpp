// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include "base/result.h"
#include "base/text.h"
#include "cloud/events.h"
#include "config/settings.h"

namespace {

// Events that end before anything is sent.
struct refusal {
    const char* why;
    const char* event;
    const char* mode;
    const char* api_server;
    const char* accounts_server;
    int activation;
    int code;
};

constexpr refusal refusals[] = {
    {"no API server", "devinfo", "on", "", "a.example", 0, ERR_CLOUD_OFF},
    {"no API server comes first", "devinfo", "on", "", "a.example", 1004, ERR_CLOUD_OFF},
    {"disabled", "devinfo", "disable", "api.example", "a.example", 0, ERR_CLOUD_OFF},
    {"disabled, by prefix", "cloudLogin", "disabled", "api.example", "", 0, ERR_CLOUD_OFF},
    {"not activated comes before disabled", "devinfo", "disable", "api.example", "", 2201, 2201},
    {"unknown event", "nothing", "on", "api.example", "", 0, ERR_UNKNOWN_EVENT},
    {"empty name", "", "on", "api.example", "", 0, ERR_UNKNOWN_EVENT},
    {"report without text", "app_report", "on", "api.example", "", 0, ERR_UNKNOWN_EVENT},
    {"login without server", "cloudLogin", "on", "api.example", "", 0, ERR_NO_ACCOUNTS},
    {"login, longer name", "cloudLoginX", "on", "api.example", "", 0, ERR_NO_ACCOUNTS},
    {"nothing to report", "report_upgrade", "on", "api.example", "", 0, 0},
};

TEST(Events, RefusedBeforeAnythingIsSent) {
    for (const refusal& row : refusals) {
        set_text(pluginmgr_config.cloudserver, row.mode);
        set_text(pluginmgr_config.api_server, row.api_server);
        set_text(pluginmgr_config.accounts_server, row.accounts_server);
        activation_state = row.activation;
        EXPECT_EQ(pluginmgr_api(nullptr, row.event), row.code) << row.why;
    }
    activation_state = 0;
}

}  // namespace
