// SPDX-License-Identifier: Apache-2.0
#include "qr_image.h"

#include <algorithm>

namespace {

constexpr size_t MIN_SIZE = 21;  // modules, version 1
constexpr size_t MAX_SIZE = 177;
constexpr size_t FINDER = 7;  // modules of the square in three of the corners

// What is dark lies within, right and bottom excluded.
struct box {
    size_t left = 0, top = 0, right = 0, bottom = 0;

    [[nodiscard]] size_t width() const { return right - left; }
    [[nodiscard]] size_t height() const { return bottom - top; }
};

box dark_box(const gray_image& image) {
    box found = {image.width, image.height, 0, 0};
    for (size_t y = 0; y < image.height; y++) {
        for (size_t x = 0; x < image.width; x++) {
            if (image.is_dark(x, y)) {
                found.left = std::min(found.left, x);
                found.top = std::min(found.top, y);
                found.right = std::max(found.right, x + 1);
                found.bottom = y + 1;
            }
        }
    }
    return found;
}

// Modules on a side, from the upper left finder's edge; 0 when that cannot be.
size_t count_modules(const gray_image& image, const box& area) {
    size_t edge = 0;
    while (edge < area.width() && image.is_dark(area.left + edge, area.top)) {
        edge++;
    }
    if (edge < FINDER) {
        return 0;
    }
    const size_t size = (2 * area.width() * FINDER + edge) / (2 * edge);  // rounded
    const bool possible = size >= MIN_SIZE && size <= MAX_SIZE && size % 4 == 1;
    return possible ? size : 0;
}

// A finder: a dark frame, a light one in it, a dark square of three.
bool is_finder(const qr_code& code, size_t left, size_t top) {
    for (size_t y = 0; y < FINDER; y++) {
        for (size_t x = 0; x < FINDER; x++) {
            const size_t depth = std::min({x, y, FINDER - 1 - x, FINDER - 1 - y});
            if (code.at(left + x, top + y) != (depth != 1)) {
                return false;
            }
        }
    }
    return true;
}

// The dark modules of two rows in one character each, the upper row first.
const char* half_block(bool upper, bool lower) {
    constexpr const char* BLOCKS[] = {" ", "\u2584", "\u2580", "\u2588"};
    return BLOCKS[(upper ? 2 : 0) + (lower ? 1 : 0)];
}

}  // namespace

std::optional<qr_code> find_qr(const gray_image& image) {
    const box area = dark_box(image);
    if (area.right == 0 || area.width() != area.height()) {
        return std::nullopt;
    }
    qr_code code;
    code.size = count_modules(image, area);
    if (code.size == 0) {
        return std::nullopt;
    }
    for (size_t y = 0; y < code.size; y++) {
        for (size_t x = 0; x < code.size; x++) {
            // The pixel in the middle of the module.
            code.dark.push_back(
                image.is_dark(area.left + (2 * x + 1) * area.width() / (2 * code.size),
                              area.top + (2 * y + 1) * area.height() / (2 * code.size)));
        }
    }
    const size_t far = code.size - FINDER;
    const bool whole = is_finder(code, 0, 0) && is_finder(code, far, 0) && is_finder(code, 0, far);
    return whole ? std::optional(code) : std::nullopt;
}

std::vector<std::string> draw_qr(const qr_code& code, bool terminal) {
    constexpr const char* BLACK_ON_WHITE = "\x1b[30;47m";
    constexpr const char* AS_BEFORE = "\x1b[0m";
    const size_t side = code.size + 2 * QR_MARGIN;
    const auto dark = [&](size_t x, size_t y) {
        const size_t end = QR_MARGIN + code.size;
        return x >= QR_MARGIN && x < end && y >= QR_MARGIN && y < end &&
               code.at(x - QR_MARGIN, y - QR_MARGIN);
    };
    std::vector<std::string> lines;
    for (size_t y = 0; y < side; y += 2) {
        std::string line = terminal ? BLACK_ON_WHITE : "";
        for (size_t x = 0; x < side; x++) {
            line += half_block(dark(x, y), dark(x, y + 1));
        }
        lines.push_back(line + (terminal ? AS_BEFORE : ""));
    }
    return lines;
}
