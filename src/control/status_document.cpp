// SPDX-License-Identifier: Apache-2.0
#include "control/status_document.h"

#include <json-c/json.h>

#include <cstring>
#include <string_view>

#include "base/json.h"
#include "base/text.h"
#include "log/tb_log.h"
#include "upgrade/app_info.h"

namespace {

constexpr size_t FIRST_NOTE_LIMIT = 512;
constexpr size_t SHORTEST_NOTE = 1;

std::string_view note_of(const app_info& entry, size_t limit) {
    if (!entry.remote || !entry.remote->rel_info) {
        return "null";
    }
    const std::string_view note = entry.remote->rel_info.get();
    if (limit == 0 || note.size() <= limit) {
        return note;
    }
    while (limit > 0 && (note[limit] & 0xC0) == 0x80) {
        limit--;  // half a UTF-8 character would spoil the whole document
    }
    return note.substr(0, limit);
}

json_object* status_object(const app_info& entry, size_t note_limit) {
    const app_info* remote = entry.remote.get();
    const bool offered = remote != nullptr && remote->version;
    const std::string_view note = note_of(entry, note_limit);
    json_object* object = json_object_new_object();
    add_json_text(object, "pluginName", entry.app_name.get());
    add_json_text(object, "pluginVersion", entry.version.get());
    add_json_text(object, "pluginNewVersion",
                  offered ? remote->version.get() : entry.version.get());
    json_object_object_add(object, "pluginNote",
                           json_object_new_string_len(note.data(), static_cast<int>(note.size())));
    json_object_object_add(object, "pluginSpace",
                           json_object_new_int(remote != nullptr ? remote->size : entry.size));
    json_object_object_add(object, "status", json_object_new_int(entry.status));
    return object;
}

json_ptr status_document(size_t note_limit) {
    json_ptr list(json_object_new_array());
    const app_list_guard guard;
    for (const app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        json_object_array_add(list.get(), status_object(*entry, note_limit));
    }
    return list;
}

// The document's length, or 0 with buffer untouched when it does not fit.
size_t store_document(json_object* document, char* buffer, size_t size) {
    const char* text = json_object_to_json_string(document);
    const size_t length = text != nullptr ? strlen(text) : 0;
    if (length == 0 || length + 1 >= size) {
        return 0;
    }
    copy_text(buffer, size, {text, length});
    return length;
}

size_t store_what_fits(char* buffer, size_t size) {
    const json_ptr whole = status_document(SHORTEST_NOTE);
    const json_ptr part(json_object_new_array());
    size_t length = store_document(part.get(), buffer, size);
    for (size_t i = 0; i < json_object_array_length(whole.get()); i++) {
        json_object_array_add(part.get(),
                              json_object_get(json_object_array_get_idx(whole.get(), i)));
        const size_t longer = store_document(part.get(), buffer, size);
        if (longer == 0) {
            break;
        }
        length = longer;
    }
    return length;
}

}  // namespace

size_t dumpVersionStatus(char* buffer, size_t size) {
    copy_text(buffer, size, "");
    size_t limit = 0;  // no limit
    for (;;) {
        const size_t length = store_document(status_document(limit).get(), buffer, size);
        if (length > 0) {
            return length;
        }
        if (limit == SHORTEST_NOTE) {
            // No shorter notes are left, and another round would go on for ever.
            return store_what_fits(buffer, size);
        }
        limit = limit > 0 ? limit / 2 : FIRST_NOTE_LIMIT;
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__,
                "plugin release note is too long, limit to %d", static_cast<int>(limit));
    }
}
