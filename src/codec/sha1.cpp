// SPDX-License-Identifier: Apache-2.0
#include "codec/sha1.h"

#include "codec/block_digest.h"

namespace {

constexpr size_t SCHEDULE = 16;  // the words are made as they are needed, in a ring
constexpr uint32_t START[5] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
constexpr uint32_t ROUND_CONSTANT[4] = {0x5A827999, 0x6ED9EBA1, 0x8F1BBCDC, 0xCA62C1D6};

template <size_t Round>
uint32_t mix(uint32_t b, uint32_t c, uint32_t d) {
    if constexpr (Round == 0) {
        return d ^ (b & (c ^ d));
    } else if constexpr (Round == 2) {
        return (b & c) | (d & (b | c));
    } else {
        return b ^ c ^ d;
    }
}

uint32_t next_word(uint32_t (&ring)[SCHEDULE], size_t t) {
    uint32_t& word = ring[t % SCHEDULE];
    if (t >= SCHEDULE) {
        word = std::rotl(
            ring[(t - 3) % SCHEDULE] ^ ring[(t - 8) % SCHEDULE] ^ ring[(t - 14) % SCHEDULE] ^ word,
            1);
    }
    return word;
}

template <size_t Round>
void run_round(uint32_t (&s)[5], uint32_t (&ring)[SCHEDULE]) {
    constexpr size_t STEPS = 20;
    for (size_t t = Round * STEPS; t < (Round + 1) * STEPS; t++) {
        const uint32_t sum = std::rotl(s[0], 5) + mix<Round>(s[1], s[2], s[3]) + s[4] +
                             ROUND_CONSTANT[Round] + next_word(ring, t);
        s[4] = s[3];
        s[3] = s[2];
        s[2] = std::rotl(s[1], 30);
        s[1] = s[0];
        s[0] = sum;
    }
}

void compress(uint32_t* state, const uint8_t* data, size_t blocks) {
    uint32_t ring[SCHEDULE] = {};
    for (; blocks > 0; blocks--, data += SHA1_BLOCK_SIZE) {
        for (size_t i = 0; i < SCHEDULE; i++) {
            ring[i] = load_word<std::endian::big>(data + i * 4);
        }
        uint32_t s[5] = {state[0], state[1], state[2], state[3], state[4]};
        run_round<0>(s, ring);
        run_round<1>(s, ring);
        run_round<2>(s, ring);
        run_round<3>(s, ring);
        for (size_t i = 0; i < 5; i++) {
            state[i] += s[i];
        }
    }
    explicit_bzero(ring, sizeof ring);  // the block may have been a key
}

}  // namespace

void sha1_init(sha1_context* context) {
    *context = {};
    std::copy_n(START, 5, context->state);
}

void sha1_update(sha1_context* context, const void* data, size_t length) {
    absorb<compress>(context, data, length);
}

void sha1_final(sha1_context* context, uint8_t digest[SHA1_DIGEST_SIZE]) {
    finish<compress, std::endian::big>(context, digest);
}

void hmac_sha1(const void* key, size_t key_length, const void* message, size_t length,
               uint8_t digest[SHA1_DIGEST_SIZE]) {
    hmac<sha1_context, sha1_init, sha1_update, sha1_final, SHA1_DIGEST_SIZE>(
        key, key_length, message, length, digest);
}
