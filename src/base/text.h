// SPDX-License-Identifier: Apache-2.0
// Text in fixed fields. Every char field of the daemon is written through these helpers, which
// know its size: they cut at size - 1 and always terminate. A field that other threads may be
// reading keeps its last byte zero at every instant, so a torn read never leaves the field.
// No state; any thread.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

// Writes value into out (size bytes in all). True when it fitted whole, false when it was cut.
// Where the text becomes a name, a key or a command, look at the result.
bool copy_text(char* out, size_t size, std::string_view value);

// The same from a printf format. False also when the format itself fails (out is then empty).
bool format_into(char* out, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
bool format_into_v(char* out, size_t size, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

// Appends at the end of the text in out. False when it was cut.
bool append_text(char* out, size_t size, std::string_view value);
bool append_format(char* out, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// The same for arrays, whose size the compiler knows.
template <size_t N>
bool set_text(char (&field)[N], std::string_view value) {
    return copy_text(field, N, value);
}

// A span, not a template over the arguments: so the compiler sees format and arguments together.
bool format_text(std::span<char> field, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// The text in a field, ended by its zero byte or by the field's size.
template <size_t N>
std::string_view text_of(const char (&field)[N]) {
    return {field, strnlen(field, N)};
}

// True when text begins with prefix; a null text begins with nothing.
inline bool has_prefix(const char* text, std::string_view prefix) {
    return text != nullptr && std::string_view(text).starts_with(prefix);
}

inline bool is_empty(const char* text) {
    return text == nullptr || text[0] == '\0';
}

// The parts, one behind the other.
std::string joined(std::initializer_list<std::string_view> parts);

// The text with its control characters (below 0x20, and 0x7f) as %XX. For foreign values in what
// is read line by line, such as the path and the headers of a request: it stays on its line.
std::string one_line(std::string_view text);

// What atoi() gives for the leading decimal number of text (blanks and a sign allowed), without
// its undefined overflow: values outside an int are held at its limits. 0 when there is none.
int to_int(std::string_view text);
// Whether there is such a number.
bool begins_with_number(std::string_view text);
