// SPDX-License-Identifier: Apache-2.0
#include "device/identity.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "base/handles.h"
#include "base/result.h"
#include "base/text.h"
#include "log/tb_log.h"

namespace {

constexpr int WAIT_ATTEMPTS = 10;  // a second apart
constexpr long MAC_OFFSET = 0;
constexpr size_t MAC_BLOCK = 25;
constexpr long DEVICE_ID_OFFSET = 1024;
constexpr size_t DEVICE_ID_BLOCK = 46;
constexpr size_t MIN_DEVICE_ID = 32;

// Copies what follows key within the block, at most what out holds.
int copy_value(std::string_view block, std::string_view key, char* out, size_t size) {
    const size_t at = block.find(key);
    if (at == std::string_view::npos) {
        return FAILED;
    }
    copy_text(out, size, block.substr(at + key.size()));
    return 0;
}

}  // namespace

void wait_for_device(const char* path) {
    struct stat state = {};
    for (int attempt = 0; attempt < WAIT_ATTEMPTS; attempt++) {
        if (stat(path, &state) == 0) {
            return;
        }
        sleep(1);
    }
    log_err("wait_for_device", 721, "failed to stat %s\n", path);
}

int readEnv_block(char* buffer, long offset, size_t length) {
    wait_for_device(FLASH_PARTITION);
    unique_fd flash(open(FLASH_PARTITION, O_RDONLY | O_CLOEXEC));
    if (!flash) {
        log_err("readEnv_block", 730, "Can't open %s\n(%s)\n", FLASH_PARTITION, strerror(errno));
        return FAILED;
    }
    errno = 0;  // an early end of the partition sets none
    const ssize_t count = pread(flash.get(), buffer, length, offset);
    if (count < 0 || static_cast<size_t>(count) != length) {
        log_err("readEnv_block", 738, "Failed reading %s\n(%s)\n", FLASH_PARTITION,
                strerror(errno));
        (void)flash.release();  // left open on this path: deliberate
        return FAILED;
    }
    if (close(flash.release()) != 0) {
        log_err("readEnv_block", 742, "Failed closing %s\n(%s)\n", FLASH_PARTITION,
                strerror(errno));
        return FAILED;
    }
    return 0;
}

int get_env_mac(char (*out)[MAC_TEXT_SIZE]) {
    char block[MAC_BLOCK] = {};
    if (out == nullptr || readEnv_block(block, MAC_OFFSET, sizeof block) != 0) {
        return FAILED;
    }
    return copy_value({block, sizeof block}, "ethaddr=", *out, sizeof *out);
}

int get_mac_text(char (*out)[MAC_TEXT_SIZE]) {
    const int code = get_env_mac(out);
    if (code == 0) {
        char* end = std::remove(*out, *out + strlen(*out), ':');
        *end = '\0';
    }
    return code;
}

int read_flash_device_id(char (*out)[DEVICE_ID_SIZE]) {
    char block[DEVICE_ID_BLOCK] = {};
    if (out == nullptr || readEnv_block(block, DEVICE_ID_OFFSET, sizeof block) != 0) {
        return FAILED;
    }
    return copy_value({block, sizeof block}, "device_id=", *out, sizeof *out);
}

int is_bad_device_id(const char* text) {
    const std::string_view id = text == nullptr ? "" : text;
    if (id.size() < MIN_DEVICE_ID) {
        return 1;
    }
    for (const size_t hyphen : {8U, 13U, 18U, 23U}) {
        if (id[hyphen] != '-') {
            return 1;
        }
    }
    for (const char c : id.substr(0, DEVICE_ID_SIZE - 1)) {
        if (static_cast<unsigned char>(c) > 127) {
            return 1;
        }
    }
    return 0;
}

void load_device_id(settings* config) {
    char id[DEVICE_ID_SIZE] = {};
    const bool bad = read_flash_device_id(&id) != 0 || is_bad_device_id(id) != 0;
    set_text(config->device_id, bad ? NO_DEVICE_ID : id);
    log_msg(LOG_FUNCTION, LEVEL_DETAIL, __func__, __LINE__, "pluginmgr get devid=%s(%d)",
            config->device_id, static_cast<int>(strlen(config->device_id)));
}

int get_ifc_mac(unsigned char out[6], const char* interface) {
    const unique_fd any_socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    struct ifreq request = {};
    if (!any_socket || !set_text(request.ifr_name, interface) ||
        ioctl(any_socket.get(), SIOCGIFHWADDR, &request) != 0) {
        return FAILED;
    }
    std::copy_n(request.ifr_hwaddr.sa_data, 6, out);
    return 0;
}
