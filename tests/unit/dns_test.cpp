// SPDX-License-Identifier: Apache-2.0
#include "net/dns.h"

#include <gtest/gtest.h>

#include <string>

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

}  // namespace
