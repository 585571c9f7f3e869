// SPDX-License-Identifier: Apache-2.0
#include "device/kv.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>

#include "base/file.h"
#include "base/result.h"
#include "log/tb_log.h"

namespace {

constexpr size_t LINE_SIZE = 1025;

bool is_complete(std::span<const kv_entry> table) {
    return std::ranges::all_of(table, [](const kv_entry& e) { return e.value != nullptr; });
}

kv_entry* open_entry(std::span<kv_entry> table, const char* name) {
    for (kv_entry& entry : table) {
        if (entry.name && !entry.value && strcmp(entry.name.get(), name) == 0) {
            return &entry;
        }
    }
    return nullptr;
}

}  // namespace

char* trim_text(char* s) {
    size_t length = strlen(s);
    while (length > 0 && isspace(static_cast<unsigned char>(s[length - 1])) != 0) {
        length--;
    }
    s[length] = '\0';
    if (length >= 2) {
        while (isblank(static_cast<unsigned char>(*s)) != 0) {
            s++;
        }
    }
    return s;
}

int split_kv(char* line, char sep, char** key, char** value) {
    *key = nullptr;
    *value = nullptr;
    char* at = strchr(line, sep);
    if (at == nullptr) {
        return FAILED;
    }
    *at = '\0';
    *key = trim_text(line);
    *value = trim_text(at + 1);
    return 0;
}

int read_kv_file(const char* path, char sep, std::span<kv_entry> table) {
    const file_ptr file = open_stream(path, TEXT_FILE_LIMIT);
    if (!file) {
        log_unreadable(__func__, __LINE__, path);
        return FAILED;
    }
    char line[LINE_SIZE] = {};
    while (!is_complete(table) && fgets(line, sizeof line, file.get()) != nullptr) {
        char* key = nullptr;
        char* value = nullptr;
        if (split_kv(line, sep, &key, &value) != 0) {
            continue;
        }
        if (kv_entry* entry = open_entry(table, key)) {
            entry->value = heap_text(value);
        }
    }
    return 0;
}

int read_kv_pairs(const char* path, char sep, std::span<kv_entry> table) {
    const file_ptr file = open_stream(path, TEXT_FILE_LIMIT);
    if (!file) {
        log_unreadable(__func__, __LINE__, path);
        return FAILED;
    }
    char line[LINE_SIZE] = {};
    while (fgets(line, sizeof line, file.get()) != nullptr) {
        char* key = nullptr;
        char* value = nullptr;
        if (split_kv(trim_text(line), sep, &key, &value) != 0) {
            continue;
        }
        const auto unused = std::ranges::find_if(table, [](const kv_entry& e) { return !e.name; });
        if (unused == table.end()) {
            break;
        }
        *unused = {heap_text(key), heap_text(value)};
    }
    return 0;
}

void free_kv_table(std::span<kv_entry> table) {
    for (kv_entry& entry : table) {
        entry = {};
    }
}
