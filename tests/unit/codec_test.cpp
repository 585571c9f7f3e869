// SPDX-License-Identifier: Apache-2.0
// Digests at block borders, and the table of escapes; a fuzz target has the other encoders.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "base/handles.h"
#include "codec/encode.h"
#include "codec/md5.h"
#include "codec/sha1.h"

namespace {

template <size_t N>
std::string hex(const uint8_t (&digest)[N]) {
    char text[2 * N + 1] = {};
    hex_encode(digest, N, text, sizeof text);
    return text;
}

constexpr size_t WHOLE = SIZE_MAX / 2;

// Digest of text, fed in pieces of at most `step` bytes.
template <typename Context, size_t Size, auto init, auto update, auto final>
std::string digest(const std::string& text, size_t step) {
    Context context;
    uint8_t out[Size] = {};
    init(&context);
    for (size_t at = 0; at < text.size(); at += step) {
        update(&context, text.data() + at, std::min(step, text.size() - at));
    }
    final(&context, out);
    return hex(out);
}
constexpr auto sha1 = digest<sha1_context, SHA1_DIGEST_SIZE, sha1_init, sha1_update, sha1_final>;
constexpr auto md5 = digest<md5_context, MD5_DIGEST_SIZE, md5_init, md5_update, md5_final>;

// Digest of all digests of the texts "", "x", "xx", ... up to 200 bytes, however they are fed;
// computed elsewhere.
TEST(Digest, EveryLengthAndEveryPiece) {
    for (const size_t step : {size_t{1}, size_t{7}, size_t{63}, size_t{64}, size_t{65}, WHOLE}) {
        std::string all_sha1;
        std::string all_md5;
        for (size_t length = 0; length <= 200; length++) {
            all_sha1 += sha1(std::string(length, 'x'), step);
            all_md5 += md5(std::string(length, 'x'), step);
        }
        EXPECT_EQ(sha1(all_sha1, WHOLE), "1f67da40a499e887e43c141418cc90ce5c8f9002") << step;
        EXPECT_EQ(md5(all_md5, WHOLE), "1f0d9d949b2c16e511c7083a082d1828") << step;
    }
}

TEST(Hmac, PublishedVectors) {
    const struct {
        std::string key;
        std::string data;
        const char* md5;
        const char* sha1;
    } rows[] = {
        {"Jefe", "what do ya want for nothing?", "750c783e6ab0b503eaa86e310a5db738",
         "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {std::string(80, '\xaa'),
         "Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data",
         "6f630fad67cda0ee1fb1f562db3aa53e", "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"},
        // computed elsewhere: the longest key that is taken as it is
        {std::string(64, 'k'), "", "114eeb1da42af605666663c84c40d185",
         "b6b10bf17b16d7347adb5e4149102761dbb3bcbd"},
    };
    for (const auto& row : rows) {
        uint8_t by_md5[MD5_DIGEST_SIZE] = {};
        uint8_t by_sha1[SHA1_DIGEST_SIZE] = {};
        hmac_md5(row.key.data(), row.key.size(), row.data.data(), row.data.size(), by_md5);
        hmac_sha1(row.key.data(), row.key.size(), row.data.data(), row.data.size(), by_sha1);
        EXPECT_EQ(hex(by_md5), row.md5) << row.data;
        EXPECT_EQ(hex(by_sha1), row.sha1) << row.data;
    }
}

TEST(Md5File, ReportsWhatItCannotRead) {
    uint8_t out[MD5_DIGEST_SIZE] = {};
    EXPECT_EQ(md5_file("/nonexistent", out), -1);
    EXPECT_EQ(md5_file("/tmp", out), -1) << "a folder opens but does not read";
}

TEST(Encode, UrlEscapes) {
    url_escape_init();
    const std::string passes =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_.!~*'():@&=+$,/?";
    for (int c = 1; c < 256; c++) {
        const char text[] = {static_cast<char>(c), '\0'};
        char escaped[4] = {};
        char out[4] = {};
        snprintf(escaped, sizeof escaped, "%%%02X", static_cast<unsigned>(c));
        EXPECT_STREQ(url_encode(text, out),
                     passes.find(text) != std::string::npos ? text : escaped);
    }
    const text_ptr allocated(url_encode("caf\xc3\xa9 [a/b?c=d&e]", nullptr));
    EXPECT_STREQ(allocated.get(), "caf%C3%A9%20%5Ba/b?c=d&e%5D");
    EXPECT_EQ(url_encode("", nullptr), nullptr);
    char out[4] = "xyz";
    EXPECT_STREQ(url_encode("", out), "");
}

}  // namespace
