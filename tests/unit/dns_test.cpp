// SPDX-License-Identifier: Apache-2.0
#include "net/dns.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace std::string_literals;

namespace {

TEST(dns, decodes_and_skips_names) {
    struct row {
        const char* what;
        std::string rest;  // of the message, from offset 12; the name begins at offset
        size_t offset;
        std::string name;
        int used;  // -1: refused
        int skipped;
    };
    const row rows[] = {
        {"label and pointer", "\2de\0\3www\xC0\x0C"s, 16, "www.de", 6, 6},
        {"pointer to pointer", "\2de\0\xC0\x0C\1a\xC0\x10"s, 18, "a.de", 4, 4},
        {"two pointers in a circle", "\1a\xC0\x10\xC0\x0C"s, 12, "", -1, 4},
        {"label past the end", "\4www"s, 12, "", -1, -1},
        {"offset past the end", "\0"s, 99, "", -1, -1},
        {"longest", "\xBF" + std::string(191, 'x') + "\x3E" + std::string(62, 'y') + '\0', 12,
         std::string(191, 'x') + "." + std::string(62, 'y'), 256, 256},
        {"too long", "\xBF" + std::string(191, 'x') + "\x3F" + std::string(63, 'y') + '\0', 12, "",
         -1, 257},
    };
    for (const row& r : rows) {
        const std::string text = std::string(12, '\x07') + r.rest;
        const dns_message message(reinterpret_cast<const uint8_t*>(text.data()), text.size());
        char out[DNS_NAME_SIZE] = {};
        ASSERT_EQ(dns_decode_name(message, r.offset, out, sizeof out), r.used) << r.what;
        EXPECT_EQ(dns_skip_name(message, r.offset), r.skipped) << r.what;
        EXPECT_STREQ(r.used < 0 ? "" : out, r.name.c_str()) << r.what;
    }
}

std::string number(size_t value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string record(const std::string& owner, unsigned type, const std::string& data,
                   unsigned klass = 1) {
    return owner + number(type) + number(klass) + "\0\0\0\7"s + number(data.size()) + data;
}

// Offset 12, and so "\xC0\x0C", is the name asked for; 16 is its end "de".
TEST(dns, takes_addresses_of_the_name_asked_for_and_of_its_aliases) {
    const std::string asked = "\3Www\2de\0"s;
    const std::string other = "\4evil\2de\0"s;
    const std::string real = "\4real\xC0\x10"s;
    const std::string lower = "\3wWW\2dE\0"s;
    constexpr unsigned A = 1;
    constexpr unsigned CNAME = 5;
    const std::string good = record("\xC0\x0C", A, "\1\2\3\4");
    const std::string to_real = record("\xC0\x0C", CNAME, real);
    const std::string of_real = record("\4REAL\2de\0"s, A, "\5\6\7\x08");
    const std::string loop = number(0xC000 + 12 + asked.size() + 4 + 12);  // at its own data
    struct row {
        const char* what;
        std::vector<std::string> records;
        int result;
        const char* address;
    };
    const row rows[] = {
        {"its own", {good}, 0, "1.2.3.4"},
        {"in other case", {record(lower, A, "\1\2\3\4")}, 0, "1.2.3.4"},
        {"the last of two", {good, record(asked, A, "\1\1\1\1")}, 0, "1.1.1.1"},
        {"of another name alone", {record(other, A, "\6\6\6\6")}, -1, ""},
        {"of another name behind it", {good, record(other, A, "\6\6\6\6")}, 0, "1.2.3.4"},
        {"of its parent", {record("\xC0\x10", A, "\6\6\6\6")}, -1, ""},
        {"of a name below it", {record("\1a\xC0\x0C", A, "\6\6\6\6")}, -1, ""},
        {"of another class", {record(asked, A, "\6\6\6\6", 3)}, -1, ""},
        {"by an alias", {to_real, of_real}, 0, "5.6.7.8"},
        {"by two",
         {record(asked, CNAME, other), record(other, CNAME, real), of_real},
         0,
         "5.6.7.8"},
        {"alias without address", {to_real}, 0, ""},
        {"address before its alias", {of_real, to_real}, 0, ""},
        {"alias of another name", {record(other, CNAME, real), of_real}, -1, ""},
        {"its own behind an alias", {to_real, good}, 0, ""},
        {"alias of itself", {record(asked, CNAME, asked), good}, 0, "1.2.3.4"},
        {"alias in a circle", {record("\xC0\x0C", CNAME, loop), good}, -1, ""},
        {"address of three bytes", {good, record(other, A, "\6\6\6")}, -1, ""},
    };
    const std::string question = asked + number(A) + number(1);
    for (const row& r : rows) {
        const std::string query = std::string(12, '\0') + question;
        std::string reply = number(7) + number(0x8000) + number(1) + number(r.records.size()) +
                            number(0) + number(0) + question;
        for (const std::string& text : r.records) {
            reply += text;
        }
        char out[IPV4_TEXT_SIZE] = {};
        EXPECT_EQ(
            dns_take_address({reinterpret_cast<const uint8_t*>(reply.data()), reply.size()}, 7,
                             {reinterpret_cast<const uint8_t*>(query.data()), query.size()}, &out),
            r.result)
            << r.what;
        EXPECT_STREQ(out, r.address) << r.what;
    }
}

}  // namespace
