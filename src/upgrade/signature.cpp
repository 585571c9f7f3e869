// SPDX-License-Identifier: Apache-2.0
#include "upgrade/signature.h"

#include <cstdint>
#include <string_view>

#include "base/result.h"
#include "base/text.h"
#include "codec/encode.h"
#include "codec/md5.h"
#include "codec/sha1.h"
#include "deployment.h"

namespace {

constexpr std::string_view SIGN_KEY = PLUGINMGR_UPGRADE_SIGN_KEY;  // as it stands, not decoded
constexpr size_t MESSAGE_SIZE = 128;

}  // namespace

int upgrade_signature(const char* package, const char* version, char* out, size_t size) {
    uint8_t file_digest[MD5_DIGEST_SIZE] = {};
    uint8_t digest[SHA1_DIGEST_SIZE] = {};
    char message[MESSAGE_SIZE] = {};
    copy_text(out, size, "");
    if (md5_file(package, file_digest) != 0) {
        return FAILED;
    }
    hex_encode(file_digest, sizeof file_digest, message, sizeof message);
    (void)append_text(message, sizeof message, version != nullptr ? version : "");  // signed as cut
    hmac_sha1(SIGN_KEY.data(), SIGN_KEY.size(), message, strlen(message), digest);
    hex_encode(digest, sizeof digest, out, size);
    return 0;
}
