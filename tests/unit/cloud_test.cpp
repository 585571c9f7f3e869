// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "base/json.h"
#include "base/result.h"
#include "base/text.h"
#include "cloud/events.h"
#include "config/settings.h"
#include "net/http.h"

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

TEST(Answers, CodeIsANumberOrATextThatBeginsWithOne) {
    const struct {
        const char* answer;
        int code;
    } rows[] = {
        {R"({"code":0})", 0},
        {R"({"code":"0"})", 0},
        {R"({"code":"18"})", 18},
        {R"({"code":" -5 of the platform, in so many words"})", -5},
        {R"({"code":99999999999999999999})", INT_MAX},
        {R"({"devices":[{"code":"7"}]})", 7},
        {R"({"code":"INVALID_TOKEN","token":"x"})", ERR_NO_CODE},
        {R"({"code":"x0"})", ERR_NO_CODE},
        {R"({"code":"- 0"})", ERR_NO_CODE},
        {R"({"code":""})", ERR_NO_CODE},
        {R"({"code":true})", ERR_NO_CODE},
        {R"({"code":[0]})", ERR_NO_CODE},
        {R"({"code":null})", ERR_NO_CODE},
        {"[0]", ERR_NO_CODE},
        {"no JSON", ERR_NO_CODE},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(get_response_code_from_json_resp(parse_json(row.answer).get()), row.code)
            << row.answer;
    }
}

TEST(Answers, AValueThatDoesNotFitIsNotTaken) {
    const json_ptr answer = parse_json(R"({"fits":"123","long":"1234","number":1234})");
    char text[4] = "old";
    for (const char* key : {"long", "number", "none"}) {
        EXPECT_EQ(get_param_from_json_resp(answer.get(), key, text, sizeof text),
                  std::string_view(key) == "none" ? FAILED : ERR_TOO_LONG)
            << key;
        EXPECT_STREQ(text, "old") << key;
    }
    EXPECT_EQ(get_param_from_json_resp(answer.get(), "fits", text, sizeof text), 0);
    EXPECT_STREQ(text, "123");
}

TEST(Requests, SendAllThatTheyAnnounce) {
    const std::string body(5000, 'b');
    const std::string path = "/" + std::string(5000, 'p');
    set_text(pluginmgr_config.login_token, std::string(383, 't'));
    const std::string text = construct_request("POST", path.c_str(), body.c_str(), "pass_TOKEN");
    EXPECT_TRUE(text.starts_with("POST " + path + " HTTP/1.1\nHost: "));
    EXPECT_TRUE(text.ends_with("\r\nContent-Length: 5000\r\n\r\n" + body));
    std::string credential;
    for (int group = 0; group < 127; group++) {
        credential += "dHR0";  // "ttt"
    }
    EXPECT_NE(text.find("\nAuthorization: Basic " + credential + "dHQ6\n"), std::string::npos);
    set_text(pluginmgr_config.login_token, "");
}

}  // namespace
