// SPDX-License-Identifier: Apache-2.0
#include "net/dns.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

using namespace std::string_literals;

namespace {

dns_message bytes_of(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

// Twelve bytes that no test looks at, then the rest: offsets as in a real message.
std::string message_of(const std::string& rest) {
    return std::string(12, '\x07') + rest;
}

TEST(dns, writes_within_the_room) {
    struct row {
        std::string name;
        size_t room;
        std::string wire;  // empty: refused
    };
    const row rows[] = {
        {"a.bc", 6, "\1a\2bc\0"s},
        {"a.bc", 5, ""},
        {"", 1, "\0"s},
        {"", 0, ""},
        {"a.", 8, "\1a\0"s},
        {std::string(64, 'x'), 66, "\x40" + std::string(64, 'x') + '\0'},  // over 63 is let through
        {std::string(256, 'x'), 512, ""},
    };
    for (const row& r : rows) {
        uint8_t out[512] = {};
        const int length = dns_encode_name(r.name.c_str(), out, r.room);
        ASSERT_EQ(length, r.wire.empty() ? -1 : static_cast<int>(r.wire.size())) << r.name;
        EXPECT_EQ(std::string(out, out + std::max(length, 0)), r.wire);
    }
    dns_question question = {"a", 1, 1};
    uint8_t out[7] = {};
    EXPECT_EQ(dns_pack_question(question, out, 7), 7);
    EXPECT_EQ(dns_pack_question(question, out, 6), -1);
    EXPECT_EQ(dns_pack_header({}, out, sizeof out), -1);
}

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
        {"plain", "\3www\2de\0"s, 12, "www.de", 8, 8},
        {"root", "\0"s, 12, "", 1, 1},
        {"pointer", "\2de\0\xC0\x0C"s, 16, "de", 2, 2},
        {"label and pointer", "\2de\0\3www\xC0\x0C"s, 16, "www.de", 6, 6},
        {"pointer to pointer", "\2de\0\xC0\x0C\1a\xC0\x10"s, 18, "a.de", 4, 4},
        {"pointer to itself", "\xC0\x0C"s, 12, "", -1, 2},
        {"two pointers in a circle", "\1a\xC0\x10\xC0\x0C"s, 12, "", -1, 4},
        {"pointer out of the message", "\xC0\xFF"s, 12, "", -1, 2},
        {"half a pointer", "\xC0"s, 12, "", -1, -1},
        {"label past the end", "\4www"s, 12, "", -1, -1},
        {"no end", "\3www"s, 12, "", -1, -1},
        {"offset past the end", "\0"s, 99, "", -1, -1},
        {"longest", "\xBF" + std::string(191, 'x') + "\x3E" + std::string(62, 'y') + '\0', 12,
         std::string(191, 'x') + "." + std::string(62, 'y'), 256, 256},
        {"too long", "\xBF" + std::string(191, 'x') + "\x3F" + std::string(63, 'y') + '\0', 12, "",
         -1, 257},
    };
    for (const row& r : rows) {
        const std::string message = message_of(r.rest);
        char out[DNS_NAME_SIZE] = {};
        ASSERT_EQ(dns_decode_name(bytes_of(message), r.offset, out, sizeof out), r.used) << r.what;
        EXPECT_EQ(dns_skip_name(bytes_of(message), r.offset), r.skipped) << r.what;
        if (r.used >= 0) {
            EXPECT_EQ(out, r.name) << r.what;
        }
    }
}

TEST(dns, reads_only_what_is_whole) {
    const std::string tail = "\0\1\0\1\0\0\1\2\0\4\x0A\0\0\xFF"s;  // A, IN, 258 s, 10.0.0.255
    const std::string message = message_of("\2de\0"s + "\0\1\0\1"s + "\xC0\x0C" + tail);
    const size_t at = 20;
    dns_record record = {};
    ASSERT_EQ(dns_parse_rr(bytes_of(message), at, &record), 16);
    EXPECT_EQ(record.type, 1);
    EXPECT_EQ(record.ttl, 258U);
    EXPECT_EQ(record.offset, 32U);
    char text[IPV4_TEXT_SIZE] = {};
    EXPECT_STREQ(dns_format_ipv4(record.data, &text), "10.0.0.255");
    for (size_t size = at; size < message.size(); size++) {
        EXPECT_EQ(dns_parse_rr(bytes_of(message).first(size), at, &record), -1) << size;
    }
    dns_question question = {};
    EXPECT_EQ(dns_parse_question(bytes_of(message), 12, &question), 8);
    EXPECT_STREQ(question.name, "de");
    EXPECT_EQ(dns_skip_question(bytes_of(message), 12), 8);
    EXPECT_EQ(dns_skip_question(bytes_of(message).first(19), 12), -1);
    EXPECT_EQ(dns_parse_question(bytes_of(message).first(19), 12, &question), -1);
    dns_header header = {};
    EXPECT_EQ(dns_unpack_header(bytes_of(message).first(11), &header), -1);
}

}  // namespace
