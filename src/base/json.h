// SPDX-License-Identifier: Apache-2.0
// Owned JSON values. json-c's own headers are included by the files that take values apart;
// everybody else passes these along. No state; any thread.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

struct json_object;

struct release_json {
    void operator()(json_object* value) const;
};
// Owns one reference to a json-c value; null stands for "no JSON".
using json_ptr = std::unique_ptr<json_object, release_json>;

// Parses one JSON text; null when it is not JSON.
[[nodiscard]] json_ptr parse_json(const char* text);
// Parses a regular file of at most JSON_FILE_LIMIT; null, with errno, when it cannot be read, and
// with an errno of 0 when it is not JSON. Quiet: says nothing on stderr.
[[nodiscard]] json_ptr parse_json_file(const char* path);

// Adds a text to an object; a null value adds nothing.
void add_json_text(json_object* object, const char* key, const char* value);

// The member of an object, borrowed; null when value is no object or has no such member.
[[nodiscard]] json_object* json_member(json_object* value, const char* key);

// Copies the text of a member into out (a string's own text, any other value's JSON text; cut at
// size - 1). False, with out untouched, when there is no such member or it is the JSON null.
bool json_text(json_object* value, const char* key, char* out, size_t size);
