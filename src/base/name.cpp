// SPDX-License-Identifier: Apache-2.0
#include "base/name.h"

#include <algorithm>

namespace {

constexpr std::string_view PROGRAM_SIGNS = "._-+~@%:,=";
constexpr std::string_view FILE_SIGNS = " !#^()[]{}";
constexpr std::string_view NOT_IN_FRONT = ".-~ ";

bool is_letter_or_digit(char c) {
    const bool beyond_ascii = static_cast<unsigned char>(c) >= 0x80;  // names are UTF-8 and older
    return beyond_ascii || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           (c >= '0' && c <= '9');
}

bool is_program_sign(char c) {
    return is_letter_or_digit(c) || PROGRAM_SIGNS.find(c) != std::string_view::npos;
}

bool is_file_sign(char c) {
    return is_program_sign(c) || FILE_SIGNS.find(c) != std::string_view::npos;
}

bool is_name(std::string_view name, size_t limit, bool (*allowed)(char)) {
    return !name.empty() && name.size() <= limit &&
           NOT_IN_FRONT.find(name.front()) == std::string_view::npos &&
           std::all_of(name.begin(), name.end(), allowed);
}

}  // namespace

bool is_program_name(std::string_view name) {
    return is_name(name, PROGRAM_NAME_LIMIT, is_program_sign);
}

bool is_file_name(std::string_view name) {
    return is_name(name, FILE_NAME_LIMIT, is_file_sign);
}
