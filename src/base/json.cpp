// SPDX-License-Identifier: Apache-2.0
#include "base/json.h"

#include <json-c/json.h>

#include <cerrno>
#include <string>

#include "base/file.h"
#include "base/text.h"

void release_json::operator()(json_object* value) const {
    json_object_put(value);
}

json_ptr parse_json(const char* text) {
    return json_ptr(text == nullptr ? nullptr : json_tokener_parse(text));
}

json_ptr parse_json_file(const char* path) {
    std::string text;
    if (read_file(path, JSON_FILE_LIMIT, &text) != 0) {
        return nullptr;
    }
    json_ptr value = parse_json(text.c_str());
    errno = 0;
    return value;
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
