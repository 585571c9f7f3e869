// SPDX-License-Identifier: Apache-2.0
#include "base/json.h"

#include <fcntl.h>
#include <json-c/json.h>

#include "base/handles.h"
#include "base/text.h"

void release_json::operator()(json_object* value) const {
    json_object_put(value);
}

json_ptr parse_json(const char* text) {
    return json_ptr(text == nullptr ? nullptr : json_tokener_parse(text));
}

json_ptr parse_json_file(const char* path) {
    // Not waiting: a pipe in the file's place would hold the reader for ever.
    const unique_fd file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    return json_ptr(file ? json_object_from_fd(file.get()) : nullptr);
}

void add_json_text(json_object* object, const char* key, const char* value) {
    if (value != nullptr) {
        json_object_object_add(object, key, json_object_new_string(value));
    }
}

json_object* json_member(json_object* value, const char* key) {
    json_object* member = nullptr;
    if (value == nullptr || !json_object_is_type(value, json_type_object)) {
        return nullptr;
    }
    return json_object_object_get_ex(value, key, &member) != 0 ? member : nullptr;
}

bool json_text(json_object* value, const char* key, char* out, size_t size) {
    json_object* member = json_member(value, key);
    if (member == nullptr) {  // also what json-c holds for a JSON null
        return false;
    }
    copy_text(out, size, json_object_get_string(member));
    return true;
}
