// SPDX-License-Identifier: Apache-2.0
#include "base/handles.h"

#include <cstring>

text_ptr heap_text(const char* text) {
    return text_ptr(text == nullptr ? nullptr : strdup(text));
}
