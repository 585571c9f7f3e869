// SPDX-License-Identifier: Apache-2.0
#include "codec/md5.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "base/handles.h"
#include "codec/block_digest.h"

namespace {

constexpr size_t STEPS = 64;
// Bytes read at a time: few calls, yet inside the L1 cache.
constexpr size_t CHUNK = size_t{16} * 1024;

constexpr uint32_t START[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};

constexpr uint32_t ADDEND[STEPS] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

constexpr int SHIFT[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// Which word of the block step Step takes.
template <size_t Step>
constexpr size_t WORD = Step < 16   ? Step
                        : Step < 32 ? (5 * Step + 1) % 16
                        : Step < 48 ? (3 * Step + 5) % 16
                                    : (7 * Step) % 16;

// One step on four words whose roles move round by one each time. All of it is about the chain
// from b to the next step: whatever does not hang on b is added first.
template <size_t Step>
[[gnu::always_inline]] inline void run_step(uint32_t (&s)[4], const uint8_t* block) {
    uint32_t& a = s[(STEPS - Step) % 4];
    const uint32_t b = s[(STEPS - Step + 1) % 4];
    const uint32_t c = s[(STEPS - Step + 2) % 4];
    const uint32_t d = s[(STEPS - Step + 3) % 4];
    a += load_word<std::endian::little>(block + WORD<Step> * 4) + ADDEND[Step];
    if constexpr (Step < 16) {
        a += d ^ (b & (c ^ d));
    } else if constexpr (Step < 32) {
        a += c & ~d;  // the two halves share no bit, so their sum is their union
        a += b & d;
    } else if constexpr (Step < 48) {
        a += b ^ (c ^ d);
    } else {
        a += c ^ (b | ~d);
    }
    a = std::rotl(a, SHIFT[Step / 16][Step % 4]) + b;
}

template <size_t... Step>
[[gnu::always_inline]] inline void run_steps(uint32_t (&s)[4], const uint8_t* block,
                                             std::index_sequence<Step...>) {
    (run_step<Step>(s, block), ...);
}

void compress(uint32_t* state, const uint8_t* data, size_t blocks) {
    uint32_t s[4] = {state[0], state[1], state[2], state[3]};
    for (; blocks > 0; blocks--, data += MD5_BLOCK_SIZE) {
        const uint32_t before[4] = {s[0], s[1], s[2], s[3]};
        run_steps(s, data, std::make_index_sequence<STEPS>());
        for (size_t i = 0; i < 4; i++) {
            s[i] += before[i];
        }
    }
    std::copy_n(s, 4, state);
}

}  // namespace

void md5_init(md5_context* context) {
    *context = {};
    std::copy_n(START, 4, context->state);
}

void md5_update(md5_context* context, const void* data, size_t length) {
    absorb<compress>(context, data, length);
}

void md5_final(md5_context* context, uint8_t digest[MD5_DIGEST_SIZE]) {
    finish<compress, std::endian::little>(context, digest);
}

int md5_file(const char* path, uint8_t digest[MD5_DIGEST_SIZE]) {
    const unique_fd file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file) {
        return -1;
    }
    md5_context context;
    md5_init(&context);
    uint8_t bytes[CHUNK] = {};
    for (;;) {
        const ssize_t count = read(file.get(), bytes, sizeof bytes);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return -1;
        }
        if (count == 0) {
            md5_final(&context, digest);
            return 0;
        }
        md5_update(&context, bytes, static_cast<size_t>(count));
    }
}

void hmac_md5(const void* key, size_t key_length, const void* message, size_t length,
              uint8_t digest[MD5_DIGEST_SIZE]) {
    hmac<md5_context, md5_init, md5_update, md5_final, MD5_DIGEST_SIZE>(key, key_length, message,
                                                                        length, digest);
}
