// SPDX-License-Identifier: Apache-2.0
#include "device/versions.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>

#include "base/file.h"
#include "base/handles.h"
#include "base/result.h"
#include "base/shell.h"
#include "base/text.h"
#include "config/ini.h"
#include "config/settings.h"
#include "device/kv.h"
#include "log/tb_log.h"

namespace {

constexpr const char* REVISION_FILE = "/var/log/version";
constexpr const char* VERSIONS_FOLDER = "/var/log/versions";
constexpr const char* CLOUD_VERSIONS = "/var/log/versions/cloud";
constexpr const char* DEFAULT_MODEL = "KQ900";
constexpr size_t REVISION_START = 4;  // both revisions have four characters before them
constexpr size_t LINE_SIZE = 1025;
constexpr size_t UPTIME_LINE = 128;
constexpr size_t PATH_SIZE = 512;

void set_hardware_revision(std::string_view value) {
    const size_t blank = value.find(' ', REVISION_START);
    if (blank == std::string_view::npos) {
        return;
    }
    value.remove_prefix(blank + 1);
    size_t length = 0;
    while (length < value.size() && isalnum(static_cast<unsigned char>(value[length])) != 0) {
        length++;
    }
    set_text(pluginmgr_config.hw_revision, value.substr(0, length));
}

void set_software_revision(std::string_view value) {
    if (value.size() > REVISION_START) {
        set_text(pluginmgr_config.sw_revision, value.substr(REVISION_START));
    }
}

void append_lines(const char* name, char* out, size_t size) {
    char path[PATH_SIZE] = {};
    format_text(path, "%s/%s", VERSIONS_FOLDER, name);
    const file_ptr file = open_stream(path, TEXT_FILE_LIMIT);
    if (!file) {
        log_unreadable(__func__, __LINE__, path);
        printf("open file %s fail\n", path);
        return;
    }
    char line[LINE_SIZE] = {};
    while (fgets(line, sizeof line, file.get()) != nullptr) {
        append_format(out, size, "%s,", trim_text(line));
    }
}

}  // namespace

void read_revision() {
    set_text(pluginmgr_config.device_model, DEFAULT_MODEL);
    kv_entry table[] = {{heap_text("HW_REVISION"), nullptr}, {heap_text("SW_REVISION"), nullptr}};
    (void)read_kv_file(REVISION_FILE, '=', table);  // a missing file has no values
    if (table[0].value) {
        set_hardware_revision(table[0].value.get());
    }
    if (table[1].value) {
        set_software_revision(table[1].value.get());
    }
    free_kv_table(table);
}

int read_uptime(char* out, size_t size) {
    const file_ptr file = open_stream("/proc/uptime", TEXT_FILE_LIMIT);
    char line[UPTIME_LINE] = {};
    char* since_boot = nullptr;
    char* idle = nullptr;
    if (!file || fgets(line, sizeof line, file.get()) == nullptr ||
        split_kv(line, ' ', &since_boot, &idle) != 0) {
        return FAILED;
    }
    copy_text(out, size, idle);  // the idle seconds, not the uptime: what the platform is told
    return 0;
}

long write_cloud_version(std::string_view text) {
    struct stat state = {};
    if (stat(VERSIONS_FOLDER, &state) != 0) {
        run_shell("mkdir -p /var/log/versions");
    }
    const int code = replace_file(CLOUD_VERSIONS, text);
    if (code != 0) {
        log_err(__func__, __LINE__, "%s not written, code %d", CLOUD_VERSIONS, code);
        return FAILED;
    }
    return static_cast<long>(text.size());
}

int list_versions(char* out, size_t size) {
    copy_text(out, size, "");
    const folder_ptr folder(opendir(VERSIONS_FOLDER));
    if (!folder) {
        printf("open /var/log/versions fail");
        return FAILED;
    }
    while (const dirent* entry = readdir(folder.get())) {
        if (entry->d_type != DT_DIR && strcmp(entry->d_name, ".") != 0 &&
            strcmp(entry->d_name, "..") != 0) {
            append_lines(entry->d_name, out, size);
        }
    }
    const std::string_view list(out, strnlen(out, size));
    if (list.empty()) {
        return FAILED;
    }
    if (list.ends_with(',')) {  // not when the list was cut
        out[list.size() - 1] = '\0';
    }
    return 0;
}
