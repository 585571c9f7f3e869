// SPDX-License-Identifier: Apache-2.0
#include "base/text.h"

#include <algorithm>
#include <climits>
#include <cstdio>

namespace {

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

// Blanks and a sign before a number.
size_t size_of_sign(std::string_view text) {
    size_t at = 0;
    while (at < text.size() && (text[at] == ' ' || (text[at] >= '\t' && text[at] <= '\r'))) {
        at++;
    }
    return at < text.size() && (text[at] == '-' || text[at] == '+') ? at + 1 : at;
}

}  // namespace

bool copy_text(char* out, size_t size, std::string_view value) {
    if (size == 0) {
        return value.empty();
    }
    const size_t length = std::min(value.size(), size - 1);
    if (length > 0) {                        // an empty view may be null
        memmove(out, value.data(), length);  // a field may be set from a part of itself
    }
    out[length] = '\0';
    return length == value.size();
}

bool format_into_v(char* out, size_t size, const char* format, va_list args) {
    const int length = vsnprintf(out, size, format, args);
    if (length < 0) {
        if (size > 0) {
            out[0] = '\0';
        }
        return false;
    }
    return static_cast<size_t>(length) < size;
}

bool format_into(char* out, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const bool whole = format_into_v(out, size, format, args);
    va_end(args);
    return whole;
}

bool format_text(std::span<char> field, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const bool whole = format_into_v(field.data(), field.size(), format, args);
    va_end(args);
    return whole;
}

bool append_text(char* out, size_t size, std::string_view value) {
    const size_t used = strnlen(out, size);
    return copy_text(out + used, size - used, value);
}

bool append_format(char* out, size_t size, const char* format, ...) {
    const size_t used = strnlen(out, size);
    va_list args;
    va_start(args, format);
    const bool whole = format_into_v(out + used, size - used, format, args);
    va_end(args);
    return whole;
}

std::string joined(std::initializer_list<std::string_view> parts) {
    std::string text;
    for (const std::string_view part : parts) {
        text.append(part);
    }
    return text;
}

std::string one_line(std::string_view text) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string line;
    line.reserve(text.size());
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            line += {'%', digits[byte >> 4], digits[byte & 15]};
        } else {
            line += c;
        }
    }
    return line;
}

bool begins_with_number(std::string_view text) {
    return size_of_sign(text) < text.size() && is_digit(text[size_of_sign(text)]);
}

int to_int(std::string_view text) {
    size_t at = size_of_sign(text);
    const bool negative = at > 0 && text[at - 1] == '-';
    long long value = 0;
    for (; at < text.size() && is_digit(text[at]); at++) {
        value = std::min<long long>(value * 10 + (text[at] - '0'), INT_MAX + 1LL);
    }
    value = negative ? -value : value;
    return static_cast<int>(std::clamp<long long>(value, INT_MIN, INT_MAX));
}
