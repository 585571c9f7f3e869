// SPDX-License-Identifier: Apache-2.0
// A foreign settings file, read, listed, changed, and loaded as the daemon does. A value that was
// taken reads back as itself; one that was refused leaves the file as it was.
#include "config/ini.h"

#include "base/text.h"
#include "config/settings.h"
#include "config/update_config.h"
#include "world.h"

namespace {

constexpr const char* SECTION = "Config";
constexpr const char* KEY = "api_server";

void set_and_read_back(const std::string& path, const char* value) {
    const std::string before = file_text(SETTINGS_FILE);
    char read[2 * INI_MAX_LINE] = "unset";
    if (ini_set(path.c_str(), SECTION, KEY, value) != 0) {
        require(file_text(SETTINGS_FILE) == before, "a refused value changes nothing");
        return;
    }
    const std::string text = value;
    const bool plain =
        text.find('\r') == std::string::npos && !text.ends_with('+') &&
        (text.empty() || (strchr(" \t", text.front()) == nullptr && text.back() != ' '));
    const int code = ini_get(path.c_str(), SECTION, KEY, read, sizeof read);
    require(!plain || (code == 0 && text == read), "a value reads back as itself");
}

void body(fuzz_input& in) {
    const unsigned what = in.byte();
    const std::string value = in.part();
    const std::string path = inside(SETTINGS_FILE);
    put_file(SETTINGS_FILE, in.rest());
    char small[7] = {};
    (void)ini_get(path.c_str(), SECTION, KEY, small, sizeof small);
    ini_name names[4] = {};
    (void)ini_list_sections(path.c_str(), names);
    (void)ini_list_keys(path.c_str(), names[0].text, names);
    set_and_read_back(path, value.c_str());
    if (what % 4 == 1) {
        load_settings(&pluginmgr_config, path.c_str(), path.c_str());
    } else if (what % 4 == 2) {
        put_file(PUSHED_SETTINGS_FILE, in.rest());
        (void)handle_update_config();
    }
}

}  // namespace

FUZZ_TARGET(body)
