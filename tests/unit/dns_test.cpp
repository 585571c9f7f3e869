// SPDX-License-Identifier: Apache-2.0
#include "net/dns.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

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
    uint8_t out[512] = {};
    EXPECT_EQ(dns_encode_name("a.bc", out, 6), 6);
    EXPECT_EQ(std::string(out, out + 6), "\1a\2bc\0"s);
    EXPECT_EQ(dns_encode_name("a.bc", out, 5), -1);
    EXPECT_EQ(dns_encode_name("", out, 1), 1);
    EXPECT_EQ(dns_encode_name("", out, 0), -1);
    EXPECT_EQ(dns_encode_name(std::string(64, 'x').c_str(), out, 66),
              66);  // over 63 is let through
    EXPECT_EQ(dns_encode_name(std::string(256, 'x').c_str(), out, 512), -1);
    EXPECT_EQ(dns_pack_question({"a", 1, 1}, out, 7), 7);
    EXPECT_EQ(dns_pack_question({"a", 1, 1}, out, 6), -1);
    EXPECT_EQ(dns_pack_header({}, out, 11), -1);
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
        const std::string message = message_of(r.rest);
        char out[DNS_NAME_SIZE] = {};
        ASSERT_EQ(dns_decode_name(bytes_of(message), r.offset, out, sizeof out), r.used) << r.what;
        EXPECT_EQ(dns_skip_name(bytes_of(message), r.offset), r.skipped) << r.what;
        EXPECT_STREQ(r.used < 0 ? "" : out, r.name.c_str()) << r.what;
    }
}

TEST(dns, reads_only_what_is_whole) {
    const std::string tail = "\0\1\0\1\0\0\1\2\0\4\x0A\0\0\xFF"s;  // A, IN, 258 s, 10.0.0.255
    const std::string message = message_of("\2de\0"s + "\0\1\0\1"s + "\xC0\x0C" + tail);
    dns_record record = {};
    ASSERT_EQ(dns_parse_rr(bytes_of(message), 20, &record), 16);
    EXPECT_EQ(record.type, 1);
    EXPECT_EQ(record.ttl, 258U);
    char text[IPV4_TEXT_SIZE] = {};
    EXPECT_STREQ(dns_format_ipv4(record.data, &text), "10.0.0.255");
    for (size_t size = 20; size < message.size(); size++) {
        EXPECT_EQ(dns_parse_rr(bytes_of(message).first(size), 20, &record), -1) << size;
    }
    dns_question question = {};
    EXPECT_EQ(dns_parse_question(bytes_of(message).first(20), 12, &question), 8);
    EXPECT_STREQ(question.name, "de");
    EXPECT_EQ(dns_parse_question(bytes_of(message).first(19), 12, &question), -1);
    EXPECT_EQ(dns_skip_question(bytes_of(message).first(19), 12), -1);
}

}  // namespace
