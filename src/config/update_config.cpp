// SPDX-License-Identifier: Apache-2.0
#include "config/update_config.h"

#include <sys/stat.h>

#include <cstring>

#include "base/shell.h"
#include "base/text.h"
#include "config/ini.h"
#include "log/tb_log.h"

namespace {

constexpr const char* FUNCTION = "handle_update_config";  // whose lines these are
constexpr size_t NUMBER_TEXT = 16;

}  // namespace

bool read_pushed_settings(settings* pushed) {
    struct stat state = {};
    if (lstat(PUSHED_SETTINGS_FILE, &state) != 0) {
        log_msg(LOG_SERVICE, LEVEL_DEBUG, FUNCTION, 182, "Update Config file %s not exist",
                PUSHED_SETTINGS_FILE);
        return false;
    }
    bool taken = false;
    (void)read_update_config(pushed, PUSHED_SETTINGS_FILE, &taken);  // always 0
    if (!taken) {
        return false;
    }
    log_msg(LOG_SERVICE, LEVEL_TRACE, FUNCTION, 187, "Update Config %s,%s,%s", pushed->cloudserver,
            pushed->api_server, pushed->accounts_server);
    return true;
}

void remove_pushed_settings() {
    run_shell_format("rm -f %s 1>/dev/null 2>&1", PUSHED_SETTINGS_FILE);
}

bool take_pushed_text(std::span<char> live, std::string_view pushed, const char* key) {
    const std::string_view old(live.data(), strnlen(live.data(), live.size()));
    if (pushed.empty() || pushed == old) {
        return false;
    }
    copy_text(live.data(), live.size(), pushed);
    (void)ini_set(SETTINGS_FILE, "Config", key, live.data());
    return true;
}

bool take_pushed_number(int32_t* live, int32_t pushed, const char* section, const char* key) {
    if (pushed <= 0 || pushed == *live) {
        return false;
    }
    *live = pushed;
    char text[NUMBER_TEXT] = {};
    format_text(text, "%d", pushed);
    (void)ini_set(SETTINGS_FILE, section, key, text);
    return true;
}
