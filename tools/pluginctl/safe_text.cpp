// SPDX-License-Identifier: Apache-2.0
#include "safe_text.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

#include "base/text.h"

namespace {

constexpr uint32_t NO_CHARACTER = 0xFFFD;  // also what stands for it in JSON
constexpr int DEEPEST = 64;
constexpr std::string_view DIGITS = "0123456789";

// Characters that a terminal obeys or that turn the text around them; from, to.
constexpr uint32_t OBEYED[][2] = {{0x00, 0x1F},     {0x7F, 0x9F},     {0x61C, 0x61C},
                                  {0x200E, 0x200F}, {0x2028, 0x202E}, {0x2066, 0x2069}};

// Shapes of UTF-8: the first byte's bits above its value, and the least value of each.
struct utf8_shape {
    uint8_t mask;
    uint8_t mark;
    uint32_t least;
};
constexpr utf8_shape SHAPES[] = {
    {0x80, 0x00, 0}, {0xE0, 0xC0, 0x80}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}};

bool is_valid(uint32_t value, uint32_t least) {
    return value >= least && value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
}

// Takes the first character off text, or a byte that begins none.
uint32_t take_character(std::string_view* text) {
    const std::string_view all = *text;
    for (size_t more = 0; more < std::size(SHAPES); more++) {
        const auto first = static_cast<uint8_t>(all[0]);
        const utf8_shape& shape = SHAPES[more];
        if ((first & shape.mask) != shape.mark || all.size() <= more) {
            continue;
        }
        uint32_t value = first & static_cast<uint8_t>(~shape.mask);
        size_t at = 1;
        while (at <= more && (static_cast<uint8_t>(all[at]) & 0xC0U) == 0x80U) {
            value = value << 6U | (static_cast<uint8_t>(all[at++]) & 0x3FU);
        }
        if (at > more && is_valid(value, shape.least)) {
            text->remove_prefix(more + 1);
            return value;
        }
    }
    text->remove_prefix(1);
    return NO_CHARACTER;
}

bool is_obeyed(uint32_t character) {
    return std::any_of(std::begin(OBEYED), std::end(OBEYED), [character](const auto& range) {
        return character >= range[0] && character <= range[1];
    });
}

// A character of a JSON string as it came, or as \uXXXX; none of the escaped ones is beyond that.
void add_character(uint32_t character, std::string_view as_it_came, std::string* out) {
    if (is_obeyed(character) || (character == NO_CHARACTER && as_it_came.size() == 1)) {
        char escaped[8] = {};
        (void)format_text(escaped, "\\u%04x", static_cast<unsigned>(character));  // always fits
        *out += escaped;
    } else {
        *out += as_it_came;
    }
}

// Moves JSON from text to out, piece by piece. Each is false when it does not find what it is for.
struct json_copier {
    std::string_view text;
    std::string out;

    void blanks() {
        const size_t count = std::min(text.find_first_not_of(" \t\r\n"), text.size());
        out.append(count, ' ');
        text.remove_prefix(count);
    }
    bool word(std::string_view wanted) {
        const bool found = text.starts_with(wanted);
        if (found) {
            out += wanted;
            text.remove_prefix(wanted.size());
        }
        return found;
    }
    bool digits() {
        const size_t count = std::min(text.find_first_not_of(DIGITS), text.size());
        out += text.substr(0, count);
        text.remove_prefix(count);
        return count > 0;
    }
    bool number();
    bool escape();
    bool string();
    bool list(char end, bool with_keys, int depth);
    bool value(int depth);
};

bool json_copier::number() {
    (void)word("-");
    if (!word("0") && !digits()) {
        return false;
    }
    if (word(".") && !digits()) {
        return false;
    }
    if (word("e") || word("E")) {
        (void)(word("+") || word("-"));
        return digits();
    }
    return true;
}

bool json_copier::escape() {
    constexpr std::string_view HEX = "0123456789abcdefABCDEF";
    if (text.size() > 1 && std::string_view("\"\\/bfnrt").find(text[1]) != std::string_view::npos) {
        return word(text.substr(0, 2));
    }
    return text.starts_with("\\u") && text.size() >= 6 &&
           text.substr(2, 4).find_first_not_of(HEX) == std::string_view::npos &&
           word(text.substr(0, 6));
}

bool json_copier::string() {
    if (!word("\"")) {
        return false;
    }
    while (!text.empty() && text[0] != '"') {
        if (text[0] == '\\') {
            if (!escape()) {
                return false;
            }
            continue;
        }
        const std::string_view before = text;
        const uint32_t character = take_character(&text);
        add_character(character, before.substr(0, before.size() - text.size()), &out);
    }
    return word("\"");
}

// The rest of an array or an object, whose first bracket has been taken.
bool json_copier::list(char end, bool with_keys, int depth) {
    const std::string_view last(&end, 1);
    blanks();
    if (word(last)) {
        return true;
    }
    do {
        blanks();
        if (with_keys) {
            if (!string()) {
                return false;
            }
            blanks();
            if (!word(":")) {
                return false;
            }
        }
        if (!value(depth + 1)) {
            return false;
        }
        blanks();
    } while (word(","));
    return word(last);
}

bool json_copier::value(int depth) {
    blanks();
    if (depth > DEEPEST) {
        return false;
    }
    if (word("{")) {
        return list('}', true, depth);
    }
    if (word("[")) {
        return list(']', false, depth);
    }
    return word("true") || word("false") || word("null") ||
           (text.starts_with("\"") ? string() : number());
}

std::string quoted(std::string_view text) {
    std::string out = "\"";
    while (!text.empty()) {
        const std::string_view before = text;
        const uint32_t character = take_character(&text);
        if (character == '"' || character == '\\') {
            out += '\\';
        }
        add_character(character, before.substr(0, before.size() - text.size()), &out);
    }
    return out + "\"";
}

}  // namespace

std::string printable(std::string_view text) {
    std::string shown;
    while (!text.empty()) {
        const std::string_view before = text;
        const uint32_t character = take_character(&text);
        const bool is_hidden = is_obeyed(character) || character == NO_CHARACTER;
        shown += is_hidden ? "?" : before.substr(0, before.size() - text.size());
    }
    return shown;
}

std::string safe_json(std::string_view text) {
    json_copier copier = {text, ""};
    if (copier.value(0)) {
        copier.blanks();
        if (copier.text.empty()) {
            return copier.out;
        }
    }
    return R"({"result":"error","message":"the answer is not JSON","answer":)" + quoted(text) + "}";
}
