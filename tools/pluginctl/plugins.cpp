// SPDX-License-Identifier: Apache-2.0
#include "plugins.h"

#include <json-c/json.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "base/json.h"
#include "safe_text.h"
#include "words.h"

namespace {

constexpr size_t COLUMNS = 5;
using table_row = std::array<std::string, COLUMNS>;

std::string member_text(json_object* value, const char* key) {
    json_object* member = json_member(value, key);
    const char* text = member == nullptr ? nullptr : json_object_get_string(member);
    return text == nullptr ? "" : text;
}

plugin read_plugin(json_object* value) {
    plugin entry;
    entry.name = member_text(value, "pluginName");
    entry.version = member_text(value, "pluginVersion");
    entry.new_version = member_text(value, "pluginNewVersion");
    entry.size = json_object_get_int64(json_member(value, "pluginSpace"));
    entry.status = json_object_get_int(json_member(value, "status"));
    return entry;
}

std::string or_dash(const std::string& text) {
    return text.empty() ? "-" : printable(text);
}

void print_row(const table_row& row, const std::array<size_t, COLUMNS>& widths) {
    for (size_t i = 0; i < COLUMNS; i++) {
        const std::string blanks(widths[i] - cells(row[i]), ' ');
        const bool last = i + 1 == COLUMNS;  // the size, aligned to the right
        printf("%s%s%s", last ? blanks.c_str() : row[i].c_str(),
               last ? row[i].c_str() : blanks.c_str(), last ? "\n" : "  ");
    }
}

}  // namespace

std::optional<std::vector<plugin>> read_plugins(const std::string& reply) {
    const json_ptr list = parse_json(reply.c_str());
    if (!list || !json_object_is_type(list.get(), json_type_array)) {
        return std::nullopt;
    }
    std::vector<plugin> plugins;
    for (size_t i = 0; i < json_object_array_length(list.get()); i++) {
        plugins.push_back(read_plugin(json_object_array_get_idx(list.get(), i)));
    }
    return plugins;
}

const plugin* find_plugin(const std::vector<plugin>& list, const std::string& name) {
    const auto found = std::find_if(list.begin(), list.end(),
                                    [&](const plugin& entry) { return entry.name == name; });
    return found == list.end() ? nullptr : &*found;
}

const char* state_of(const plugin& entry) {
    if (entry.status == APP_IDLE && entry.has_offer()) {
        return "newer version available";
    }
    return status_words(entry.status);
}

void print_plugins(const std::vector<plugin>& list) {
    std::vector<table_row> rows = {{"PLUG-IN", "VERSION", "NEW", "STATE", "SIZE"}};
    for (const plugin& entry : list) {
        rows.push_back({or_dash(entry.name), or_dash(entry.version),
                        entry.has_offer() ? or_dash(entry.new_version) : "-", state_of(entry),
                        entry.size > 0 ? size_words(entry.size) : "-"});
    }
    std::array<size_t, COLUMNS> widths = {};
    for (const table_row& row : rows) {
        for (size_t i = 0; i < COLUMNS; i++) {
            widths[i] = std::max(widths[i], cells(row[i]));
        }
    }
    for (const table_row& row : rows) {
        print_row(row, widths);
    }
}

bool is_active(int status) {
    return status == APP_DOWNLOADING || status == APP_DOWNLOADED || status == APP_INSTALLING ||
           status == APP_INSTALLED;
}

bool is_ended(int status) {
    return status == APP_DOWNLOAD_FAILED || status == APP_INSTALL_FAILED ||
           status == APP_RESTARTED || status == APP_INSTALL_PARTIAL || status == APP_NO_SIGNATURE ||
           status == APP_BAD_SIGNATURE;
}
