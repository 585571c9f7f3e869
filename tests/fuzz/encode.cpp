// SPDX-License-Identifier: Apache-2.0
// URL escapes, Base64 and hex, into buffers of any size, against other decoders.
#include "codec/encode.h"

#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "base/handles.h"
#include "codec/device_code.h"
#include "world.h"

namespace {

std::string decode_url(std::string_view text) {
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        require(i + 2 < text.size(), "a whole escape");
        out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
        i += 2;
    }
    return out;
}

std::string decode_base64(const std::string& text) {
    std::string out(text.size() / 4 * 3, '\0');
    const int count = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                      reinterpret_cast<const unsigned char*>(text.data()),
                                      static_cast<int>(text.size()));
    require(count == static_cast<int>(out.size()), "Base64 digits");
    out.resize(out.size() - static_cast<size_t>(std::ranges::count(text, '=')));
    return out;
}

// What an encoder writes into a buffer of exactly that size.
template <typename Encoder>
std::string written(Encoder encode, const std::string& bytes, size_t size) {
    const std::unique_ptr<char[]> out(new char[size]());
    encode(bytes.data(), bytes.size(), out.get(), size);
    return {out.get(), strnlen(out.get(), size)};
}

}  // namespace

void body(fuzz_input& in) {
    const size_t small = in.byte();
    const std::string bytes = in.rest();
    const std::string whole = written(base64_encode, bytes, 2 * bytes.size() + 8);
    require(whole.size() % 4 == 0 && decode_base64(whole) == bytes, "Base64 and back");
    require(written(base64_encode, bytes, small) == whole.substr(0, small), "a cut Base64");
    const std::string hex = written(hex_encode, bytes, 2 * bytes.size() + 1);
    require(hex.size() == 2 * bytes.size(), "two hex digits a byte");
    require(hex.starts_with(written(hex_encode, bytes, small)), "a cut hex text");
    const std::unique_ptr<char[]> exact(new char[3 * strlen(bytes.c_str()) + 1]);
    require(decode_url(url_encode(bytes.c_str(), exact.get())) == bytes.c_str(), "URL and back");
    char code[DEVICE_CODE_SIZE] = {};
    (void)derive_device_code(bytes.c_str(), code);
}
