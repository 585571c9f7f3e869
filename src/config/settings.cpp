// SPDX-License-Identifier: Apache-2.0
#include "config/settings.h"

#include <climits>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "base/file.h"
#include "base/handles.h"
#include "base/text.h"
#include "config/ini.h"
#include "config/secrets.h"
#include "deployment.h"
#include "log/tb_log.h"

settings pluginmgr_config;

namespace {

constexpr size_t NUMBER_TEXT = INI_MAX_LINE + 1;  // what follows the number does not matter
constexpr size_t HEAP_TEXT = 256;
constexpr int MIN_CHECKCYCLE = 600;  // seconds; of the start-up file only, a push may go below

template <auto Field>
std::span<char> text(settings* config) {
    return config->*Field;
}

enum class source { own_file, agent_file };
enum class log_as { value, value_if_set, length, nothing };  // value_if_set: of what protects

// One setting; exactly one of text, number and heap says where it goes.
struct setting {
    const char* key;
    const char* section = "Config";
    std::span<char> (*text)(settings*) = nullptr;
    int32_t settings::*number = nullptr;
    text_ptr settings::*heap = nullptr;
    const char* default_text = nullptr;
    source from = source::own_file;
    int default_number = 0;
    int minimum = INT_MIN;
    log_as log = log_as::value;
    bool needs_file = false;  // counts as set when the file is there and cannot be read
};

// In the order in which they are read and logged.
constexpr setting SETTINGS[] = {
    {.key = "cloudserver", .text = text<&settings::cloudserver>},
    {.key = "loglevel", .number = &settings::loglevel, .default_number = 1},
    {.key = "api_server",
     .text = text<&settings::api_server>,
     .default_text = PLUGINMGR_API_SERVER},
    {.key = "accounts_server",
     .text = text<&settings::accounts_server>,
     .default_text = PLUGINMGR_ACCOUNTS_SERVER},
    {.key = "UMS_SERVER", .text = text<&settings::UMS_SERVER>, .from = source::agent_file},
    {.key = "quorvel_server",
     .text = text<&settings::quorvel_server>,
     .default_text = PLUGINMGR_PBX_SERVER},
    {.key = "quorvel_token", .text = text<&settings::quorvel_token>, .log = log_as::length},
    {.key = "quorvel_service", .text = text<&settings::quorvel_service>, .default_text = "off"},
    {.key = "quorvel_sipuser", .heap = &settings::quorvel_sipuser, .log = log_as::nothing},
    {.key = "quorvel_sipserver", .heap = &settings::quorvel_sipserver, .log = log_as::nothing},
    {.key = "add_path_env", .text = text<&settings::add_path_env>},
    {.key = "add_lib_path_env", .text = text<&settings::add_lib_path_env>},
    {.key = "dns1", .text = text<&settings::dns1>, .default_text = "205.251.193.226"},
    {.key = "dns2", .text = text<&settings::dns2>, .default_text = "168.95.1.1"},
    {.key = "dns3", .text = text<&settings::dns3>, .default_text = "8.8.8.8"},
    {.key = "tcp_mss", .text = text<&settings::tcp_mss>},
    {.key = "active_token", .text = text<&settings::active_token>},
    {.key = "active_state", .text = text<&settings::active_state>},
    {.key = "device_key", .text = text<&settings::device_key>},
    {.key = "check_signature", .number = &settings::check_signature, .default_number = 1},
    {.key = "conn_timeout", .number = &settings::conn_timeout, .default_number = 15},
    {.key = "tls_ca_file",
     .text = text<&settings::tls_ca_file>,
     .log = log_as::value_if_set,
     .needs_file = true},
    {.key = "control_users", .text = text<&settings::control_users>, .log = log_as::value_if_set},
    {.key = "checkcycle",
     .section = "Update",
     .number = &settings::checkcycle,
     .default_number = 43200,
     .minimum = MIN_CHECKCYCLE},
};

// What a pushed file may hold. No defaults, no minimum, no log lines.
constexpr setting PUSHED_SETTINGS[] = {
    {.key = "cloudserver", .text = text<&settings::cloudserver>},
    {.key = "active_token", .text = text<&settings::active_token>},
    {.key = "api_server", .text = text<&settings::api_server>},
    {.key = "accounts_server", .text = text<&settings::accounts_server>},
    {.key = "conn_timeout", .number = &settings::conn_timeout},
    {.key = "checkcycle", .section = "Update", .number = &settings::checkcycle},
};

// False, with out untouched, when the lookup gave no value.
bool take_number(int code, const char* value, int32_t* out) {
    if (code != 0 || is_empty(value)) {
        return false;
    }
    *out = to_int(value);
    return true;
}

bool read_number(const char* path, const setting& row, int32_t* out) {
    char value[NUMBER_TEXT] = {};
    return take_number(ini_get(path, row.section, row.key, value, sizeof value), value, out);
}

void read_pushed(std::string_view text, const char* path, const setting& row, settings* config) {
    if (row.text != nullptr) {
        const std::span<char> field = row.text(config);
        // What is absent is kept.
        (void)ini_get_from(text, path, row.section, row.key, field.data(), field.size());
        return;
    }
    char value[NUMBER_TEXT] = {};
    const int code = ini_get_from(text, path, row.section, row.key, value, sizeof value);
    (void)take_number(code, value, &(config->*row.number));
}

// A broken line loses the settings behind it. What protects must not be lost: a text that is no
// file of authorities refuses every connection, one that is no user every command. Without any of
// the file the device stays open to its own web pages, by which it may be mended.
void keep_protection(const char* path, const setting& row, int code, std::span<char> field) {
    if (code == INI_NOT_OPENED && !row.needs_file) {
        return;
    }
    if (code != 0 && ini_mentions(path, row.key)) {
        log_err(__func__, __LINE__, "%s in %s can't be read, code %d", row.key, path, code);
        copy_text(field.data(), field.size(), "/unreadable setting");
    }
}

void load_text(const char* path, const setting& row, settings* config) {
    const std::span<char> field = row.text(config);
    const int code = ini_get(path, row.section, row.key, field.data(), field.size());
    if (row.log == log_as::value_if_set) {
        keep_protection(path, row, code, field);
    }
    if ((code != 0 || is_empty(field.data())) && row.default_text != nullptr) {
        copy_text(field.data(), field.size(), row.default_text);
    }
    if (row.log == log_as::value_if_set && is_empty(field.data())) {
        return;
    }
    // Component 4 will get this level, and shows everything until then.
    const bool is_hidden = is_secret(row.key) && config->loglevel < LEVEL_DEBUG;
    if (row.log == log_as::length || is_hidden) {
        log_plain(LOG_SYSTEM, LEVEL_NOTICE, " %s length %d", row.key,
                  static_cast<int>(strlen(field.data())));
    } else {
        log_plain(LOG_SYSTEM, LEVEL_NOTICE, " %s=%s", row.key, field.data());
    }
}

void load_number(const char* path, const setting& row, settings* config) {
    int32_t& number = config->*row.number;
    if (!read_number(path, row, &number)) {
        number = row.default_number;
    }
    if (number < row.minimum) {
        number = row.minimum;
        log_plain(LOG_SYSTEM, LEVEL_NOTICE, " %s minimum %d seconds", row.key, row.minimum);
    }
    log_plain(LOG_SYSTEM, LEVEL_NOTICE, " %s=%d", row.key, number);
}

void load_heap_text(const char* path, const setting& row, settings* config) {
    char value[HEAP_TEXT] = {};
    const int code = ini_get(path, row.section, row.key, value, sizeof value);
    config->*row.heap = heap_text(code == 0 && !is_empty(value) ? value : nullptr);
}

}  // namespace

void load_settings(settings* config, const char* own_file, const char* agent_file) {
    log_plain(LOG_SYSTEM, LEVEL_NOTICE, " - using %s", own_file);
    for (const setting& row : SETTINGS) {
        const char* path = row.from == source::own_file ? own_file : agent_file;
        if (row.text != nullptr) {
            load_text(path, row, config);
        } else if (row.number != nullptr) {
            load_number(path, row, config);
        } else {
            load_heap_text(path, row, config);
        }
    }
}

int read_update_config(settings* config, const char* file, bool* taken) {
    log_plain(LOG_SYSTEM, LEVEL_TRACE, " - get Update Config from %s", file);
    // The one that is judged is the one that is read: anybody may put another one in its place.
    const unique_fd source = open_trusted(file, SETTINGS_FILE_LIMIT);
    std::string text;
    *taken = source && read_open_file(source.get(), SETTINGS_FILE_LIMIT, &text) == 0;
    if (!*taken) {
        log_unreadable(__func__, __LINE__, file);
    }
    for (const setting& row : PUSHED_SETTINGS) {
        read_pushed(text, file, row, config);
    }
    return 0;
}

bool mode_is(const char* prefix) {
    return has_prefix(pluginmgr_config.cloudserver, prefix);
}
