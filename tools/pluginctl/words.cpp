// SPDX-License-Identifier: Apache-2.0
#include "words.h"

#include <cstdio>
#include <iterator>

#include "base/result.h"
#include "base/text.h"
#include "upgrade/app_info.h"

namespace {

struct number_words {
    int number;
    const char* words;
};

constexpr number_words CODES[] = {
    {0, "done"},
    {FAILED, "a system call failed, or nothing was performed"},
    {ERR_SOCKET, "no socket to be had"},
    {ERR_RESOLVE, "host name not found"},
    {ERR_CONNECT, "TCP connection failed or timed out"},
    {ERR_TLS, "TLS failed"},
    {ERR_NOT_CONNECTED, "not connected to the server"},
    {ERR_CLOUD_OFF, "the cloud is disabled, or no API server is set"},
    {ERR_NO_ACCOUNTS, "no accounts server is set"},
    {ERR_SEND, "the request could not be sent to the cloud"},
    {ERR_RECEIVE,
     "no answer from the cloud, or no folder for its file (the QR code's is /tmp/web)"},
    {ERR_NO_MAC, "the device's MAC address could not be read"},
    {ERR_LOGIN, "login at the accounts server failed"},
    {ERR_PBX_REFUSED, "the PBX service refused the activation"},
    {ERR_PBX_OFF, "the PBX service is switched off; 'pluginctl set 80035=on' switches it on"},
    {ERR_UPGRADE_PENDING, "another upgrade has been requested already; it has to end first"},
    {ERR_NO_MEMORY, "not enough free memory for the package (its size and 4 MiB)"},
    {ERR_UNKNOWN_EVENT, "no such action, or its input is missing"},
    {ERR_NO_CODE, "the cloud's answer has no usable \"code\""},
    {ERR_TOO_LONG, "a value is too long; nothing was changed"},
    {ERR_NOT_JSON, "the answer is not JSON"},
    {ERR_NOT_ARRAY, "the version list is not an array"},
    {ERR_EMPTY_LIST, "the version list is empty"},
    {CLOUD_NOT_ACTIVE, "refused by the cloud: device not activated there, or status not \"ok\""},
    {CLOUD_UPTIME_KNOWN, "the cloud knows this boot already"},
    {CLOUD_KEY_REFUSED, "the cloud refused the device key"},
    {ERR_NO_UPGRADE_INFO, "no API server is set, or it offered nothing"},
    {ERR_NO_QR_TOKEN, "the query has no \"active_toekn\""},
    {PBX_TOKEN_REFUSED, "the PBX service no longer accepts the token"},
};

constexpr number_words STATES[] = {
    {APP_IDLE, "idle"},
    {APP_DOWNLOADING, "downloading"},
    {APP_DOWNLOAD_FAILED, "download failed"},
    {APP_DOWNLOADED, "downloaded, waits for installation"},
    {APP_INSTALLING, "installing"},
    {APP_INSTALL_FAILED, "installation failed"},
    {APP_RESTARTED, "installed"},
    {APP_INSTALLED, "installed, restart pending"},
    {APP_UP_TO_DATE, "up to date"},
    {APP_CHECK_FAILED, "check failed or nothing to download"},
    {APP_INSTALL_PARTIAL, "installer reported a result of its own, not success"},
    {APP_NO_SIGNATURE, "refused: package without signature"},
    {APP_BAD_SIGNATURE, "refused: signature does not match"},
};

// clang-format off
constexpr parameter PARAMETERS[] = {
    // id   asked as settable answered
    {80000, 80000,   true,    true,  "cloud run mode: on, off, ums or disable"},
    {80001, 80000,   false,   false, "connection of the cloud agent: ok, connecting or fail"},
    {80002, 80002,   true,    true,  "bound to a cloud account"},
    {80003, 0,       true,    false, "user name of the cloud account"},
    {80004, 0,       true,    false, "password of the cloud account"},
    {80005, 80005,   false,   false, "plug-ins: versions and upgrade states"},
    {80006, 80002,   false,   false, "the cloud account"},
    {80007, 0,       true,    false, "activation token"},
    {80011, 80011,   false,   false, "authorisation code of the device"},
    {80012, 80011,   false,   false, "inuse or unused: whether the code was granted to somebody"},
    {80013, 80011,   false,   false, "who was granted the code"},
    {80014, 80000,   true,    true,  "UMS server"},
    {80020, 80000,   false,   false, "always true"},
    {80025, 80025,   false,   false, "check for upgrades, then as 80005"},
    {80031, 80031,   false,   false, "registered at the PBX service"},
    {80032, 80031,   false,   false, "the PBX service has a SIP registration"},
    {80033, 80031,   false,   false, "SIP user"},
    {80034, 80031,   false,   false, "SIP server"},
    {80035, 80031,   true,    true,  "PBX service switch: on or off"},
    {80036, 80036,   false,   false, "extensions of the PBX account"},
    {80037, 80037,   true,    true,  "user's SIP server: domain|address"},
    {80038, 80038,   true,    true,  "user's API server: domain|address"},
};
// clang-format on

template <size_t N>
const char* words_of(const number_words (&table)[N], int number, const char* otherwise) {
    for (const auto& row : table) {
        if (row.number == number) {
            return row.words;
        }
    }
    return otherwise;
}

}  // namespace

const int SET_REPLY_ORDER[] = {80000, 80014, 80002, 80035, 80037, 80038, 0};

const char* code_words(int code) {
    return words_of(CODES, code, "a code of the cloud platform");
}

const char* status_words(int status) {
    return words_of(STATES, status, "unknown state");
}

const parameter* find_parameter(int id) {
    for (const auto& row : PARAMETERS) {
        if (row.id == id) {
            return &row;
        }
    }
    return nullptr;
}

bool hides_a_key(std::string_view value) {
    for (const auto& row : PARAMETERS) {
        char key[16] = {};
        (void)format_text(key, "id%d=", row.id);  // five digits always fit
        if (row.settable && value.find(key) != std::string_view::npos) {
            return true;
        }
    }
    return false;
}

std::string size_words(long long bytes) {
    constexpr const char* UNITS[] = {"B", "KiB", "MiB", "GiB"};
    char text[32] = {};
    double value = static_cast<double>(bytes);
    size_t unit = 0;
    while (value >= 1024 && unit + 1 < std::size(UNITS)) {
        value /= 1024;
        unit++;
    }
    (void)format_text(text, unit == 0 ? "%.0f %s" : "%.1f %s", value, UNITS[unit]);
    return text;
}

size_t cells(std::string_view text) {
    size_t count = 0;
    for (const char c : text) {
        count += (static_cast<unsigned char>(c) & 0xc0U) != 0x80U ? 1 : 0;
    }
    return count;
}
