// SPDX-License-Identifier: Apache-2.0
#include "codec/device_code.h"

#include <cstdint>
#include <cstring>

#include "base/text.h"
#include "codec/encode.h"
#include "codec/md5.h"
#include "deployment.h"

namespace {

constexpr std::string_view KEY = PLUGINMGR_DEVICE_CODE_KEY;
constexpr std::string_view SALT = PLUGINMGR_DEVICE_CODE_SALT;
constexpr size_t MESSAGE_SIZE = 128;
static_assert(DEVICE_CODE_INPUT + SALT.size() < MESSAGE_SIZE);
constexpr size_t GROUPS[] = {8, 4, 4, 4, 12};  // digits between the dashes

}  // namespace

int derive_device_code(const char* input, char* output) {
    if (input == nullptr || output == nullptr ||
        strnlen(input, DEVICE_CODE_INPUT + 1) != DEVICE_CODE_INPUT) {
        return -1;
    }
    char message[MESSAGE_SIZE] = {};
    set_text(message, input);
    append_text(message, sizeof message, SALT);
    uint8_t digest[MD5_DIGEST_SIZE] = {};
    hmac_md5(KEY.data(), KEY.size(), message, strlen(message), digest);
    char digits[2 * MD5_DIGEST_SIZE + 1] = {};
    hex_encode(digest, sizeof digest, digits, sizeof digits);
    std::string_view rest = digits;
    copy_text(output, DEVICE_CODE_SIZE, "");
    for (const size_t group : GROUPS) {
        append_text(output, DEVICE_CODE_SIZE, rest.substr(0, group));
        rest.remove_prefix(group);
        append_text(output, DEVICE_CODE_SIZE, rest.empty() ? "" : "-");
    }
    return 0;
}
