// SPDX-License-Identifier: Apache-2.0
// What SHA-1 and MD5 have in common: input cut into blocks of 64 bytes, the closing padding, and
// HMAC (RFC 2104) over either. Compress is `void(uint32_t* state, const uint8_t* data, size_t
// blocks)`; a context has the fields state, length and block. Only for the files of this folder.
#pragma once

#include <string.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>

constexpr size_t DIGEST_BLOCK = 64;

// A word of the given byte order from anywhere in memory, and back.
template <std::endian Order>
[[gnu::always_inline]] inline uint32_t load_word(const uint8_t* from) {
    uint32_t word = 0;
    memcpy(&word, from, sizeof word);
    return std::endian::native == Order ? word : __builtin_bswap32(word);
}

template <std::endian Order>
void store_word(uint8_t* to, uint32_t word) {
    word = std::endian::native == Order ? word : __builtin_bswap32(word);
    memcpy(to, &word, sizeof word);
}

// Takes bytes in; whole blocks are compressed where they lie.
template <auto Compress, typename Context>
void absorb(Context* context, const void* data, size_t length) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    const size_t used = context->length % DIGEST_BLOCK;
    context->length += length;
    if (used > 0) {
        const size_t part = std::min(length, DIGEST_BLOCK - used);
        std::copy_n(bytes, part, context->block + used);
        if (used + part < DIGEST_BLOCK) {
            return;
        }
        Compress(context->state, context->block, 1);
        bytes += part;
        length -= part;
    }
    const size_t whole = length - length % DIGEST_BLOCK;
    if (whole > 0) {
        Compress(context->state, bytes, whole / DIGEST_BLOCK);
    }
    std::copy_n(bytes + whole, length - whole, context->block);
}

// Closes the input (a one bit, zeros, the length in bits) and writes the state as the digest.
template <auto Compress, std::endian Order, typename Context>
void finish(Context* context, uint8_t* digest) {
    constexpr size_t LENGTH_AT = DIGEST_BLOCK - 8;
    const uint64_t bits = context->length * 8;
    const auto high = static_cast<uint32_t>(bits >> 32);
    const auto low = static_cast<uint32_t>(bits);
    const size_t used = context->length % DIGEST_BLOCK;
    const size_t padding = (used < LENGTH_AT ? LENGTH_AT : LENGTH_AT + DIGEST_BLOCK) - used;
    uint8_t tail[DIGEST_BLOCK + 8] = {0x80};
    store_word<Order>(tail + padding, Order == std::endian::big ? high : low);
    store_word<Order>(tail + padding + 4, Order == std::endian::big ? low : high);
    absorb<Compress>(context, tail, padding + 8);
    for (const uint32_t word : context->state) {
        store_word<Order>(digest, word);
        digest += sizeof word;
    }
}

template <typename Context, auto Init, auto Update, auto Final, size_t DigestSize>
void hmac(const void* key, size_t key_length, const void* message, size_t length, uint8_t* digest) {
    constexpr uint8_t INNER_PAD = 0x36;
    constexpr uint8_t OUTER_PAD = 0x5C;
    Context context;
    uint8_t pad[DIGEST_BLOCK] = {};
    uint8_t inner[DigestSize] = {};
    if (key_length > DIGEST_BLOCK) {
        Init(&context);
        Update(&context, key, key_length);
        Final(&context, pad);
    } else {
        std::copy_n(static_cast<const uint8_t*>(key), key_length, pad);
    }
    for (uint8_t& byte : pad) {
        byte ^= INNER_PAD;
    }
    Init(&context);
    Update(&context, pad, sizeof pad);
    Update(&context, message, length);
    Final(&context, inner);
    for (uint8_t& byte : pad) {
        byte ^= INNER_PAD ^ OUTER_PAD;
    }
    Init(&context);
    Update(&context, pad, sizeof pad);
    Update(&context, inner, sizeof inner);
    Final(&context, digest);
    explicit_bzero(&context, sizeof context);
    explicit_bzero(pad, sizeof pad);
    explicit_bzero(inner, sizeof inner);
}
