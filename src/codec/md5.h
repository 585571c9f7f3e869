// SPDX-License-Identifier: Apache-2.0
// MD5 (RFC 1321) and HMAC-MD5 (RFC 2104), for package digests and device codes. No state; any
// thread.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t MD5_DIGEST_SIZE = 16;
constexpr size_t MD5_BLOCK_SIZE = 64;

struct md5_context {
    uint32_t state[4] = {};
    uint64_t length = 0;  // bytes taken so far
    uint8_t block[MD5_BLOCK_SIZE] = {};
};

void md5_init(md5_context* context);
void md5_update(md5_context* context, const void* data, size_t length);
void md5_final(md5_context* context, uint8_t digest[MD5_DIGEST_SIZE]);

// Digest of a whole file, read as raw bytes. 0, or -1 when it cannot be opened or read.
[[nodiscard]] int md5_file(const char* path, uint8_t digest[MD5_DIGEST_SIZE]);

void hmac_md5(const void* key, size_t key_length, const void* message, size_t length,
              uint8_t digest[MD5_DIGEST_SIZE]);
