// SPDX-License-Identifier: Apache-2.0
// A foreign settings file, read, listed, changed, and loaded as the daemon does. What is listed can
// be read. A value that was taken reads back as itself, and nothing else changes; one that was
// refused leaves the file as it was.
#include "config/ini.h"

#include <cstring>
#include <vector>

#include "config/settings.h"
#include "control/pushed_settings.h"
#include "world.h"

namespace {

constexpr const char* SECTION = "Config";
constexpr const char* KEY = "api_server";
constexpr const char* TOO_LONG = "-22 ";
constexpr size_t CUT = sizeof ini_name::text - 1;

// Code and value of a key.
std::string look_up(const char* section, const char* key) {
    char value[2 * INI_MAX_LINE] = "unset";
    const int code = ini_get(SETTINGS_FILE, section, key, value, sizeof value);
    return std::to_string(code) + " " + value;
}

struct pair {
    std::string section;
    std::string key;
    std::string found;
};

// What a listing shows, but for the key that will be set.
std::vector<pair> look_up_listed() {
    ini_name sections[2] = {};
    ini_name keys[4] = {};
    std::vector<pair> all;
    const int count = ini_list_sections(SETTINGS_FILE, sections);
    for (int i = 0; i < count; i++) {
        const char* section = sections[i].text;
        const int listed = ini_list_keys(SETTINGS_FILE, section, keys);
        for (int j = 0; j < listed; j++) {
            const char* key = keys[j].text;
            const std::string found = look_up(section, key);
            const bool cut = strlen(section) == CUT || strlen(key) == CUT;
            require(cut || found.starts_with("0 ") || found.starts_with(TOO_LONG), "a listed key");
            if (strcmp(section, SECTION) != 0 || strcmp(key, KEY) != 0) {
                all.push_back({section, key, found});
            }
        }
    }
    return all;
}

// Only blanks around a value are lost.
std::string trimmed(const std::string& value) {
    const std::string text = value.substr(0, value.find_last_not_of(' ') + 1);
    return text.substr(std::min(text.find_first_not_of(" \t"), text.size()));
}

// Room for the sign that is added to one that ends in it.
bool fits_a_line(std::string_view value) {
    return value.find_first_of("\n\r\f\032") == std::string_view::npos &&
           strlen(KEY) + 1 + value.size() + 1 <= INI_MAX_LINE;
}

void set_and_read_back(const char* value) {
    const std::string before = file_text(SETTINGS_FILE);
    const std::vector<pair> others = look_up_listed();
    const int code = ini_set(SETTINGS_FILE, SECTION, KEY, value);
    if (code != 0) {
        require(file_text(SETTINGS_FILE) == before, "a refused value changes nothing");
        require(code != INI_WRITE_ERROR || !fits_a_line(value), "what can be stored is");
        return;
    }
    require(look_up(SECTION, KEY) == "0 " + trimmed(value), "a value reads back as itself");
    for (const pair& other : others) {
        require(look_up(other.section.c_str(), other.key.c_str()) == other.found, "nothing else");
    }
}

}  // namespace

void body(fuzz_input& in) {
    const unsigned what = in.byte();
    const std::string value = in.part();
    put_file(SETTINGS_FILE, in.rest());
    char small[7] = {};
    (void)ini_get(SETTINGS_FILE, SECTION, KEY, small, sizeof small);
    set_and_read_back(value.c_str());
    if (what % 4 == 1) {
        load_settings(&pluginmgr_config, SETTINGS_FILE, SETTINGS_FILE);
    } else if (what % 4 == 2) {
        put_file(PUSHED_SETTINGS_FILE, in.rest());
        (void)handle_update_config();
    }
}
