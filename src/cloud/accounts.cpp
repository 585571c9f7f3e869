// SPDX-License-Identifier: Apache-2.0
#include "cloud/accounts.h"

#include <cstring>
#include <string_view>

#include "base/json.h"
#include "base/result.h"
#include "base/text.h"
#include "codec/encode.h"
#include "config/settings.h"
#include "deployment.h"
#include "log/tb_log.h"
#include "net/http.h"

char account_user[ACCOUNT_TEXT_SIZE] = {};
char account_password[ACCOUNT_TEXT_SIZE] = {};

namespace {

constexpr size_t LOGIN_REQUEST_SIZE = 2048;  // holds any host, escaped

// Line ends are mixed, and the one behind the body is not counted; the server takes it so. User
// name and password are not escaped.
void build_request(const char* host, char (&out)[LOGIN_REQUEST_SIZE]) {
    constexpr std::string_view client = PLUGINMGR_OAUTH_CLIENT;
    static_assert((client.size() + 2) / 3 * 4 <= CREDENTIAL_SIZE);
    char credential[CREDENTIAL_SIZE + 1] = {};
    base64_encode(client.data(), client.size(), credential, CREDENTIAL_SIZE);
    char body[128] = {};
    format_text(body, "grant_type=password&scope=everything&username=%s&password=%s", account_user,
                account_password);
    format_text(out,
                "POST /oauth2/token HTTP/1.1\n"
                "Host: %s\n"
                "User-Agent:Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)\n"
                "Accept: */*\n"
                "Content-Type:application/x-www-form-urlencoded\n"
                "Authorization: Basic %s\n"
                "Content-Length: %zu\n"
                "Connection: Close\r\n\r\n"
                "%s\r\n",
                one_line(host).c_str(), credential, strlen(body), body);
}

// Asks once more on a fresh connection when a kept one fails.
int exchange(const char* host, const char* request, json_ptr* answer) {
    https_conn* conn = &accounts_connection;
    for (;;) {
        const bool fresh = check_https_conn(conn) != 0;
        const int connected = fresh ? connect_https(conn, host) : 0;
        if (connected != 0) {
            log_err("login_accounts", __LINE__, "connect_https fail");
            return connected;
        }
        if (https_handle_request(conn, request, nullptr, answer) == 0 || fresh) {
            close_https(conn);
            return 0;
        }
    }
}

}  // namespace

int login_accounts(const char* host) {
    char request[LOGIN_REQUEST_SIZE] = {};
    build_request(host, request);
    json_ptr answer;
    const int connected = exchange(host, request, &answer);
    if (connected != 0) {
        return connected;
    }
    const int code = get_response_code_from_json_resp(answer.get());
    if (code != 0) {
        log_msg(LOG_API, LEVEL_NOTICE, __func__, __LINE__, "login_accounts failed, code %d", code);
        set_text(pluginmgr_config.login_token, "");
        return ERR_LOGIN;
    }
    if (get_param_from_json_resp(answer.get(), "token", pluginmgr_config.login_token,
                                 sizeof pluginmgr_config.login_token) == ERR_TOO_LONG) {
        set_text(pluginmgr_config.login_token, "");  // which may be another user's
        return ERR_LOGIN;
    }
    return 0;
}
