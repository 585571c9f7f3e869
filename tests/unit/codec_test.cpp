// SPDX-License-Identifier: Apache-2.0
// Digests against their published vectors (FIPS 180, RFC 1321, 2202, 4648), and the places where
// such code goes wrong: block borders, output borders, the escape table.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
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

// Digest of text, fed in pieces of at most `step` bytes.
template <typename Context, size_t Size>
std::string digest(const std::string& text, size_t step, void (*init)(Context*),
                   void (*update)(Context*, const void*, size_t),
                   void (*final)(Context*, uint8_t*)) {
    Context context;
    uint8_t out[Size] = {};
    init(&context);
    for (size_t at = 0; at < text.size(); at += step) {
        update(&context, text.data() + at, std::min(step, text.size() - at));
    }
    final(&context, out);
    return hex(out);
}

std::string sha1(const std::string& text, size_t step = SIZE_MAX / 2) {
    return digest<sha1_context, SHA1_DIGEST_SIZE>(text, step, sha1_init, sha1_update, sha1_final);
}

std::string md5(const std::string& text, size_t step = SIZE_MAX / 2) {
    return digest<md5_context, MD5_DIGEST_SIZE>(text, step, md5_init, md5_update, md5_final);
}

TEST(Digest, PublishedVectors) {
    const std::string alphabet = "abcdefghijklmnopqrstuvwxyz";
    const std::string two_blocks = "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq";
    std::string decimal;
    for (int i = 0; i < 8; i++) {
        decimal += "1234567890";
    }
    EXPECT_EQ(sha1(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
    EXPECT_EQ(sha1("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(sha1(two_blocks), "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
    EXPECT_EQ(sha1(std::string(1000000, 'a')), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
    EXPECT_EQ(md5(""), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(md5("a"), "0cc175b9c0f1b6a831c399e269772661");
    EXPECT_EQ(md5("abc"), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(md5("message digest"), "f96b697d7cb7938d525a2f31aaf161d0");
    EXPECT_EQ(md5(alphabet), "c3fcd3d76192e4007dfb496cca67e13b");
    EXPECT_EQ(md5(decimal), "57edf4a22be3c955ac49da2e2107b67a");
}

// Digest of all digests of the texts "", "x", "xx", ... up to 200 bytes; computed elsewhere.
TEST(Digest, EveryLengthAndEveryPiece) {
    std::string all_sha1;
    std::string all_md5;
    for (size_t length = 0; length <= 200; length++) {
        const std::string text(length, 'x');
        all_sha1 += sha1(text);
        all_md5 += md5(text);
        for (const size_t step : {1U, 7U, 63U, 64U, 65U}) {
            ASSERT_EQ(sha1(text, step), sha1(text)) << length << " by " << step;
            ASSERT_EQ(md5(text, step), md5(text)) << length << " by " << step;
        }
    }
    EXPECT_EQ(sha1(all_sha1), "1f67da40a499e887e43c141418cc90ce5c8f9002");
    EXPECT_EQ(md5(all_md5), "1f0d9d949b2c16e511c7083a082d1828");
}

TEST(Hmac, PublishedVectors) {
    std::string counting;
    for (char c = 1; c <= 25; c++) {
        counting += c;
    }
    const std::string long_key(80, '\xaa');
    const std::string long_data =
        "Test Using Larger Than Block-Size Key and Larger Than One Block-Size Data";
    const struct {
        std::string md5_key;
        std::string sha1_key;
        std::string data;
        const char* md5;
        const char* sha1;
    } rows[] = {
        {std::string(16, '\x0b'), std::string(20, '\x0b'), "Hi There",
         "9294727a3638bb1c13f48ef8158bfc9d", "b617318655057264e28bc0b6fb378c8ef146be00"},
        {"Jefe", "Jefe", "what do ya want for nothing?", "750c783e6ab0b503eaa86e310a5db738",
         "effcdf6ae5eb2fa2d27416d5f184df9c259a7c79"},
        {std::string(16, '\xaa'), std::string(20, '\xaa'), std::string(50, '\xdd'),
         "56be34521d144c88dbb8c733f0e8b3f6", "125d7342b9ac11cd91a39af48aa17b4f63f175d3"},
        {counting, counting, std::string(50, '\xcd'), "697eaf0aca3a3aea3a75164746ffaa79",
         "4c9007f4026250c6bc8414f9bf50c86c2d7235da"},
        {std::string(16, '\x0c'), std::string(20, '\x0c'), "Test With Truncation",
         "56461ef2342edc00f9bab995690efd4c", "4c1a03424b55e07fe7f27be1d58bb9324a9a5a04"},
        {long_key, long_key, "Test Using Larger Than Block-Size Key - Hash Key First",
         "6b1ab7fe4bd7bf8f0b62e6ce61b9d0cd", "aa4ae5e15272d00e95705637ce8a3b55ed402112"},
        {long_key, long_key, long_data, "6f630fad67cda0ee1fb1f562db3aa53e",
         "e8e99d0f45237d786d6bbaa7965c7808bbff1a91"},
    };
    for (const auto& row : rows) {
        uint8_t by_md5[MD5_DIGEST_SIZE] = {};
        uint8_t by_sha1[SHA1_DIGEST_SIZE] = {};
        hmac_md5(row.md5_key.data(), row.md5_key.size(), row.data.data(), row.data.size(), by_md5);
        hmac_sha1(row.sha1_key.data(), row.sha1_key.size(), row.data.data(), row.data.size(),
                  by_sha1);
        EXPECT_EQ(hex(by_md5), row.md5) << row.data;
        EXPECT_EQ(hex(by_sha1), row.sha1) << row.data;
    }
}

TEST(Md5File, ReadsBytesAndReportsWhatItCannot) {
    char path[] = "/tmp/codec_test.XXXXXX";
    const unique_fd file(mkstemp(path));
    ASSERT_TRUE(file);
    std::string content;
    uint8_t out[MD5_DIGEST_SIZE] = {};
    for (const size_t size : {0U, 1023U, 1024U, 1025U, 16384U, 40000U}) {
        while (content.size() < size) {
            content += static_cast<char>(content.size() * 31);  // NUL, CR and LF among them
        }
        ASSERT_EQ(pwrite(file.get(), content.data(), size, 0), static_cast<ssize_t>(size));
        EXPECT_EQ(md5_file(path, out), 0);
        EXPECT_EQ(hex(out), md5(content)) << size;
    }
    unlink(path);
    EXPECT_EQ(md5_file(path, out), -1);
    EXPECT_EQ(md5_file("/tmp", out), -1) << "a folder opens but does not read";
}

// Runs an encoder into `size` bytes and checks that the byte behind them is left alone.
std::string bounded(void (*encode)(const void*, size_t, char*, size_t), const std::string& bytes,
                    size_t size) {
    std::vector<char> out(size + 1, '#');
    encode(bytes.data(), bytes.size(), out.data(), size);
    EXPECT_EQ(out[size], '#');
    out[size] = '\0';
    return out.data();
}

TEST(Encode, HexStopsWithTheRoom) {
    const std::string bytes("\x00\x0f\xa5\xff", 4);
    EXPECT_EQ(bounded(hex_encode, bytes, 64), "000fa5ff");
    EXPECT_EQ(bounded(hex_encode, bytes, 9), "000fa5ff");
    EXPECT_EQ(bounded(hex_encode, bytes, 8), "000fa5");
    EXPECT_EQ(bounded(hex_encode, bytes, 2), "");
    EXPECT_EQ(bounded(hex_encode, bytes, 1), "");
    EXPECT_EQ(bounded(hex_encode, bytes, 0), "");
    EXPECT_EQ(bounded(hex_encode, std::string(20, 'a'), 41).size(), 40U);
    EXPECT_EQ(bounded(hex_encode, std::string(20, 'a'), 40).size(), 38U);
}

TEST(Encode, Base64VectorsAndRoom) {
    const char* const rows[][2] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
        {"\xfb\xff", "+/8="},
    };
    for (const auto& [bytes, text] : rows) {
        EXPECT_EQ(bounded(base64_encode, bytes, 64), text);
    }
    EXPECT_EQ(bounded(base64_encode, "foobar", 9), "Zm9vYmFy");
    EXPECT_EQ(bounded(base64_encode, "foobar", 8), "Zm9vYmFy") << "no room for a terminator";
    EXPECT_EQ(bounded(base64_encode, "foobar", 6), "Zm9vYm");
    EXPECT_EQ(bounded(base64_encode, "f", 3), "Zg=");
    EXPECT_EQ(bounded(base64_encode, "f", 0), "");
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
    EXPECT_EQ(derive_device_code(nullptr, out), -1);
    EXPECT_EQ(derive_device_code("001122334455", nullptr), -1);
    ASSERT_EQ(derive_device_code("001122334455", out), 0);
    if (std::string_view(PLUGINMGR_DEVICE_CODE_KEY PLUGINMGR_DEVICE_CODE_SALT) ==
        "6kfzwcfpkwc9552b592f6f1edf45aea11a74be99317e2ea297") {
        EXPECT_STREQ(out, "ea28cb67-e2d7-0262-516e-f85aa833d14e");
    }
}

}  // namespace
