// SPDX-License-Identifier: Apache-2.0
// The only file that knows libpng.
#include "qr_image.h"

#ifdef PLUGINCTL_PNG

#include <png.h>

namespace {

constexpr png_uint_32 MAX_SIDE = 1024;

bool read_pixels(png_image* image, gray_image* out) {
    constexpr png_color WHITE = {255, 255, 255};
    if (image->width > MAX_SIDE || image->height > MAX_SIDE) {
        return false;
    }
    image->format = PNG_FORMAT_GRAY;
    out->width = image->width;
    out->height = image->height;
    out->pixels.assign(out->width * out->height, 0);
    return png_image_finish_read(image, &WHITE, out->pixels.data(), 0, nullptr) != 0;
}

}  // namespace

bool read_png(const char* path, gray_image* out) {
    png_image image = {};
    image.version = PNG_IMAGE_VERSION;
    const bool read = png_image_begin_read_from_file(&image, path) != 0 && read_pixels(&image, out);
    png_image_free(&image);
    return read;
}

#else

bool read_png(const char* /*path*/, gray_image* /*out*/) {
    return false;
}

#endif
