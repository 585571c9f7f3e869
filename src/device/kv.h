// SPDX-License-Identifier: Apache-2.0
// Small key/value files: text helpers, a table of names and values, two readers. The table's
// owner releases it (its texts release themselves). No state; any thread.
#pragma once

#include <cstddef>
#include <span>

#include "base/handles.h"

struct kv_entry {
    text_ptr name;
    text_ptr value;
};

// Removes trailing white space in place and, when at least two characters remain, skips leading
// blanks and tabs. Returns the start, inside s.
char* trim_text(char* s);

// Splits line in place at the first sep; both halves trimmed. 0, or -1 (both null) without sep.
[[nodiscard]] int split_kv(char* line, char sep, char** key, char** value);

// Fills the values of the named entries from lines "name sep value"; the first line of a name
// counts. 0, or -1 when the file is missing.
[[nodiscard]] int read_kv_file(const char* path, char sep, std::span<kv_entry> table);

// Stores every line that splits into the first entry without a name; lines beyond the table are
// ignored. 0, or -1 when the file is missing.
[[nodiscard]] int read_kv_pairs(const char* path, char sep, std::span<kv_entry> table);

// Releases every name and value and sets them to none.
void free_kv_table(std::span<kv_entry> table);
