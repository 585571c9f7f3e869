// SPDX-License-Identifier: Apache-2.0
// SHA-1 (FIPS 180-1) and HMAC-SHA1 (RFC 2104), for the signatures on cloud requests and
// packages. No state; any thread.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t SHA1_DIGEST_SIZE = 20;
constexpr size_t SHA1_BLOCK_SIZE = 64;

struct sha1_context {
    uint32_t state[5] = {};
    uint64_t length = 0;  // bytes taken so far
    uint8_t block[SHA1_BLOCK_SIZE] = {};
};

void sha1_init(sha1_context* context);
void sha1_update(sha1_context* context, const void* data, size_t length);
void sha1_final(sha1_context* context, uint8_t digest[SHA1_DIGEST_SIZE]);

// Keys longer than 64 bytes are replaced by their digest. Key material is wiped after use.
void hmac_sha1(const void* key, size_t key_length, const void* message, size_t length,
               uint8_t digest[SHA1_DIGEST_SIZE]);
