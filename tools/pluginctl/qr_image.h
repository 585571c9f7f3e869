// SPDX-License-Identifier: Apache-2.0
// A QR code: from the pixels of an image to its modules, and from those to half-block characters,
// two modules a character. Nothing is decoded. No state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// Light modules that a code needs around it to be found by a camera.
constexpr size_t QR_MARGIN = 4;

struct gray_image {
    size_t width = 0;
    size_t height = 0;
    std::vector<uint8_t> pixels;  // row by row, 0 is black

    [[nodiscard]] bool is_dark(size_t x, size_t y) const { return pixels[y * width + x] < 128; }
};

struct qr_code {
    size_t size = 0;         // modules on a side
    std::vector<bool> dark;  // row by row

    [[nodiscard]] bool at(size_t x, size_t y) const { return dark[y * size + x]; }
};

// Reads a PNG file. False when it cannot be read, is more than 1024 pixels on a side, or this
// program was built without a library for it.
[[nodiscard]] bool read_png(const char* path, gray_image* out);

// The code that an image holds, upright, dark on light, alone, at any scale; nothing when it
// holds something else.
[[nodiscard]] std::optional<qr_code> find_qr(const gray_image& image);

// The code with its margin as lines of text: dark modules are drawn, light ones are blanks. On a
// terminal colours make sure of black on white.
[[nodiscard]] std::vector<std::string> draw_qr(const qr_code& code, bool terminal);
