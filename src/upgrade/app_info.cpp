// SPDX-License-Identifier: Apache-2.0
#include "upgrade/app_info.h"

#include <json-c/json.h>
#include <json-c/json_object_iterator.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

#include "base/result.h"
#include "base/text.h"
#include "log/tb_log.h"

namespace {

constexpr text_ptr app_info::*TEXT_FIELDS[] = {
    &app_info::app_name, &app_info::cloudserver, &app_info::link,      &app_info::version_name,
    &app_info::version,  &app_info::rel_info,    &app_info::signature,
};

constexpr int LOCAL_MODE = 1;

struct text_key {
    const char* key;
    text_ptr app_info::*field;
    bool local_only;
};
constexpr text_key TEXT_KEYS[] = {
    {"app_name", &app_info::app_name, false},
    {"link", &app_info::link, false},
    {"version_name", &app_info::version_name, false},
    {"version", &app_info::version, true},  // in an answer only "to_version" counts
    {"to_version", &app_info::version, false},
    {"cloudserver", &app_info::cloudserver, false},
    {"signature", &app_info::signature, false},
    {"rel_info", &app_info::rel_info, false},
};

void store_member(app_info* record, const char* key, json_object* value, int local_mode) {
    const char* text = json_object_get_string(value);  // null for a JSON null
    if (strcmp(key, "force_upgrade") == 0) {
        record->upgrade_requested = text != nullptr && strcmp(text, "true") == 0 ? 1 : 0;
        return;
    }
    if (strcmp(key, "size") == 0) {
        record->size = to_int(text != nullptr ? text : "");
        return;
    }
    for (const text_key& known : TEXT_KEYS) {
        if (strcmp(key, known.key) == 0 && (!known.local_only || local_mode == LOCAL_MODE)) {
            record->*known.field = heap_text(text);
        }
    }
}

bool copy_texts(const app_info& from, app_info* to) {
    for (const auto field : TEXT_FIELDS) {
        to->*field = heap_text((from.*field).get());
        if (from.*field && !(to->*field)) {
            return false;
        }
    }
    return true;
}

app_info* named_from(app_info* entry) {
    while (entry != &app_list && is_empty(entry->app_name.get())) {
        entry = entry->next;
    }
    return entry == &app_list ? nullptr : entry;
}

}  // namespace

app_info app_list = {.next = &app_list, .prev = &app_list};

pthread_mutex_t app_list_lock = PTHREAD_MUTEX_INITIALIZER;

void append_app(app_info_ptr entry) {
    app_info* node = entry.release();  // the list's from here on
    node->next = &app_list;
    node->prev = app_list.prev;
    app_list.prev->next = node;
    app_list.prev = node;
}

app_info* first_app() {
    return named_from(app_list.next);
}

app_info* next_app(const app_info* entry) {
    return named_from(entry->next);
}

app_info* find_app(const char* name) {
    for (app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        if (strcmp(entry->app_name.get(), name) == 0) {
            return entry;
        }
    }
    return nullptr;
}

const char* text_or(const text_ptr& text, const char* missing) {
    return text ? text.get() : missing;
}

int parseAppInfoJsonObj(json_object* json, app_info* record, int local_mode) {
    if (json == nullptr) {
        return ERR_NO_UPGRADE_INFO;
    }
    if (!json_object_is_type(json, json_type_object)) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__, "app info isn't a json object");
        return ERR_NOT_JSON;
    }
    json_object_iterator at = json_object_iter_begin(json);
    const json_object_iterator end = json_object_iter_end(json);
    while (json_object_iter_equal(&at, &end) == 0) {
        store_member(record, json_object_iter_peek_name(&at), json_object_iter_peek_value(&at),
                     local_mode);
        json_object_iter_next(&at);
    }
    return 0;
}

app_info_ptr dupAppInfo(const app_info& record) {
    app_info_ptr copy(new (std::nothrow) app_info);
    if (!copy || !copy_texts(record, copy.get())) {
        log_err(__func__, __LINE__, "dupAppInfo faild, no memory");
        return nullptr;
    }
    copy->size = record.size;
    copy->upgrade_requested = record.upgrade_requested.load();
    return copy;
}

void clear_app_info(app_info* record) {
    for (const auto field : TEXT_FIELDS) {
        (record->*field).reset();
    }
    record->size = 0;
    record->upgrade_requested = 0;
    record->download_thread = {};
    record->upgrade_thread = {};
    record->upgrade_thread_runs = false;
}

app_info_ptr copy_remote(const app_info& entry) {
    const app_list_guard guard;
    return entry.remote ? dupAppInfo(*entry.remote) : nullptr;
}

long parse_version_number(const char* version) {
    // Components are not masked: one of 256 or more spills into the next, on purpose.
    constexpr int SHIFTS[] = {16, 8, 0};
    if (version == nullptr) {
        return 0;
    }
    int64_t number = 0;
    for (const int shift : SHIFTS) {
        int64_t component = 0;
        for (; *version >= '0' && *version <= '9'; version++) {
            component = std::min<int64_t>(component * 10 + (*version - '0'), INT_MAX);
        }
        number += component << shift;
        if (*version == '\0') {
            break;
        }
        if (*version++ != '.') {
            return 0;
        }
    }
    return static_cast<long>(std::min<int64_t>(number, LONG_MAX));
}

bool is_not_newer(const app_info* entry, const app_info* remote) {
    if (entry == nullptr || remote == nullptr) {
        return true;
    }
    return parse_version_number(remote->version.get()) <=
           parse_version_number(entry->version.get());
}
