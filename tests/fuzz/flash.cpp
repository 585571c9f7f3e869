// SPDX-License-Identifier: Apache-2.0
// The blocks of the factory's flash partition: MAC address and device id.
#include <cstring>

#include "config/settings.h"
#include "device/identity.h"
#include "world.h"

constexpr size_t ID_BLOCK_END = 1024 + 46;  // a shorter partition leaves a descriptor open

void body(fuzz_input& in) {
    std::string blocks = in.part();
    blocks.resize(1024, '\xFF');
    blocks += in.rest();
    blocks.resize(std::max(blocks.size(), ID_BLOCK_END), '\0');
    put_file(FLASH_PARTITION, blocks);
    char mac[MAC_TEXT_SIZE] = {};
    (void)get_env_mac(&mac);
    if (get_mac_text(&mac) == 0) {
        require(strchr(mac, ':') == nullptr, "a MAC text has no colons");
    }
    load_device_id(&pluginmgr_config);
    const bool none = strcmp(pluginmgr_config.device_id, NO_DEVICE_ID) == 0;
    require(none || is_bad_device_id(pluginmgr_config.device_id) == 0, "a bad id is not taken");
    (void)is_bad_device_id(in.rest().c_str());
}
