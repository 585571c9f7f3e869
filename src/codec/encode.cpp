// SPDX-License-Identifier: Apache-2.0
#include "codec/encode.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr char LOWER_DIGITS[] = "0123456789abcdef";
constexpr char UPPER_DIGITS[] = "0123456789ABCDEF";
constexpr char BASE64_DIGITS[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::string_view UNESCAPED =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.!~*'():@&=+$,/?";

constexpr int NEEDS_ESCAPE_SHIFT = 5;  // a word of the table holds 2^5 bits
constexpr unsigned WORD_BITS = 1U << NEEDS_ESCAPE_SHIFT;
constexpr unsigned ASCII = 128;
uint32_t needs_escape_table[ASCII / WORD_BITS] = {};

bool needs_escape(unsigned char c) {
    return c >= ASCII || ((needs_escape_table[c / WORD_BITS] >> (c % WORD_BITS)) & 1U) != 0;
}

}  // namespace

void hex_encode(const void* bytes, size_t count, char* out, size_t size) {
    const auto* byte = static_cast<const uint8_t*>(bytes);
    for (; count > 0 && size > 2; count--, byte++, size -= 2) {
        *out++ = LOWER_DIGITS[*byte >> 4];
        *out++ = LOWER_DIGITS[*byte & 0xF];
    }
    if (size > 0) {
        *out = '\0';
    }
}

void base64_encode(const void* bytes, size_t count, char* out, size_t size) {
    const auto* in = static_cast<const uint8_t*>(bytes);
    size_t used = 0;
    for (size_t at = 0; at < count && used < size; at += 3) {
        uint32_t group = 0;
        for (size_t i = 0; i < 3; i++) {
            group = (group << 8) | (at + i < count ? in[at + i] : 0U);
        }
        for (size_t i = 0; i < 4 && used < size; i++) {
            const bool is_padding = at + i > count;
            out[used++] = is_padding ? '=' : BASE64_DIGITS[(group >> (18 - 6 * i)) & 0x3F];
        }
    }
    if (used < size) {
        out[used] = '\0';
    }
}

void url_escape_init() {
    int bits = 0;
    for (unsigned word = ~0U; word != 0; word >>= 1) {
        bits++;
    }
    if (bits < static_cast<int>(WORD_BITS)) {
        (void)fprintf(stderr,
                      "NEEDS_ESCAPE_SHIFT configuration error -- %d should be <= log2(%d)\n",
                      NEEDS_ESCAPE_SHIFT, bits);
        exit(1);
    }
    for (uint32_t& word : needs_escape_table) {
        word = ~0U;
    }
    for (const char c : UNESCAPED) {
        const auto code = static_cast<unsigned char>(c);
        needs_escape_table[code / WORD_BITS] &= ~(1U << (code % WORD_BITS));
    }
}

char* url_encode(const char* text, char* out) {
    const size_t capacity = 3 * strlen(text);
    if (out == nullptr && capacity > 0) {
        out = static_cast<char*>(malloc(capacity + 1));
    }
    if (out == nullptr) {
        return nullptr;
    }
    char* end = out;
    for (const char* at = text; *at != '\0'; at++) {
        const auto c = static_cast<unsigned char>(*at);
        if (needs_escape(c)) {
            *end++ = '%';
            *end++ = UPPER_DIGITS[c >> 4];
            *end++ = UPPER_DIGITS[c & 0xF];
        } else {
            *end++ = *at;
        }
    }
    *end = '\0';
    return out;
}
