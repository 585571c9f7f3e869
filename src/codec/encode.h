// SPDX-License-Identifier: Apache-2.0
// Text forms of bytes: lower-case hex, Base64, URL escapes. The URL escape table is built once at
// start-up and read-only afterwards; everything else has no state. Any thread.
#pragma once

#include <cstddef>

// Two lower-case digits a byte, written while more than 2 bytes of out are left; then the
// terminator, if size is at least 1. So a size of 2n + 1 holds n bytes.
void hex_encode(const void* bytes, size_t count, char* out, size_t size);

// Standard alphabet with '=' padding, no line breaks. Stops when size is used up; terminates when
// a byte is left for it.
void base64_encode(const void* bytes, size_t count, char* out, size_t size);

// Builds the table of characters that need escaping. Ends the process with status 1 on a machine
// whose words are too small for it. Main thread, before url_encode.
void url_escape_init();

// Escapes everything but letters, digits and -_.!~*'():@&=+$,/? as %XX. The output holds at most
// three times the input and its terminator; without an output buffer it is allocated, and the
// caller releases it with free(). Null only for an empty text without a buffer or when memory is
// short.
char* url_encode(const char* text, char* out);
