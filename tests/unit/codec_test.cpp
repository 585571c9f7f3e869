// SPDX-License-Identifier: Apache-2.0
// Digests against their published vectors (FIPS 180, RFC 1321, 2202, 4648), and the places where
// such code goes wrong: block borders, output borders, the escape table.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

#include "base/handles.h"
#include "codec/device_code.h"
#include "codec/encode.h"
#include "codec/md5.h"
#include "codec/sha1.h"
#include "deployment.h"

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

TEST(Digest, PublishedVectors) {
    EXPECT_EQ(sha1("abc", WHOLE), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(sha1(std::string(1000000, 'a'), WHOLE), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
    EXPECT_EQ(md5("message digest", WHOLE), "f96b697d7cb7938d525a2f31aaf161d0");
}

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

TEST(Md5File, ReadsBytesAndReportsWhatItCannot) {
    char path[] = "/tmp/codec_test.XXXXXX";
    const unique_fd file(mkstemp(path));
    std::string content;
    while (content.size() < 40000) {
        content += static_cast<char>(content.size() * 31);  // NUL, CR and LF among them
    }
    ASSERT_EQ(write(file.get(), content.data(), content.size()), std::ssize(content));
    uint8_t out[MD5_DIGEST_SIZE] = {};
    EXPECT_EQ(md5_file(path, out), 0);
    EXPECT_EQ(hex(out), md5(content, WHOLE));
    unlink(path);
    EXPECT_EQ(md5_file(path, out), -1);
    EXPECT_EQ(md5_file("/tmp", out), -1) << "a folder opens but does not read";
}

// What an encoder writes into so many bytes; the fuzz target of the encoders does it for all sizes.
std::string bounded(void (*encode)(const void*, size_t, char*, size_t), const std::string& bytes,
                    size_t size) {
    std::vector<char> out(size + 1);
    encode(bytes.data(), bytes.size(), out.data(), size);
    return out.data();
}

TEST(Encode, HexAndBase64StopWithTheRoom) {
    const std::string bytes("\x00\x0f\xa5\xff", 4);
    EXPECT_EQ(bounded(hex_encode, bytes, 9), "000fa5ff");
    EXPECT_EQ(bounded(hex_encode, bytes, 8), "000fa5") << "whole bytes and a terminator only";
    EXPECT_EQ(bounded(hex_encode, bytes, 1), "");
    EXPECT_EQ(bounded(base64_encode, "foobar", 9), "Zm9vYmFy");
    EXPECT_EQ(bounded(base64_encode, "foobar", 8), "Zm9vYmFy") << "no room for a terminator";
    EXPECT_EQ(bounded(base64_encode, "\xfb\xff", 64), "+/8=");
    EXPECT_EQ(bounded(base64_encode, "f", 64), "Zg==");
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

TEST(DeviceCode, OnlyForTwelveCharacters) {
    char out[DEVICE_CODE_SIZE] = {};
    for (const char* input : {"", "00112233445", "0011223344556"}) {
        EXPECT_EQ(derive_device_code(input, out), -1) << input;
    }
    ASSERT_EQ(derive_device_code("001122334455", out), 0);
    if (std::string_view(PLUGINMGR_DEVICE_CODE_KEY PLUGINMGR_DEVICE_CODE_SALT) ==
        "6kfzwcfpkwc9552b592f6f1edf45aea11a74be99317e2ea297") {
        EXPECT_STREQ(out, "ea28cb67-e2d7-0262-516e-f85aa833d14e");
    }
}

}  // namespace
