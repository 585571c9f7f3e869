// SPDX-License-Identifier: Apache-2.0
// Who the device is: MAC address and device id as the factory wrote them into the raw flash
// partition /dev/rkflash0p4. Read-only. Any thread; an absent partition costs about ten seconds.
#pragma once

#include <cstddef>

#include "config/settings.h"

constexpr const char* FLASH_PARTITION = "/dev/rkflash0p4";
constexpr size_t MAC_TEXT_SIZE = 18;   // xx:xx:xx:xx:xx:xx and the terminator
constexpr size_t DEVICE_ID_SIZE = 37;  // 36 characters and the terminator

// Waits until path exists, ten attempts a second apart; logs when it never does.
void wait_for_device(const char* path);

// Reads length bytes at offset of the partition. 0, or -1 with the reason logged.
[[nodiscard]] int readEnv_block(char* buffer, long offset, size_t length);

// The MAC address with its colons. 0, or -1 when out is null or flash holds none.
[[nodiscard]] int get_env_mac(char (*out)[MAC_TEXT_SIZE]);
// The same without colons: 12 digits in the case that flash has. On -1 out is left as it was.
[[nodiscard]] int get_mac_text(char (*out)[MAC_TEXT_SIZE]);
// The device id as it stands in flash. 0 or -1 as above.
[[nodiscard]] int read_flash_device_id(char (*out)[DEVICE_ID_SIZE]);

// 1 when text is null or has not the form of a device id, 0 when it has.
int is_bad_device_id(const char* text);

// Fills config->device_id from flash, or with the placeholder "devid". Main thread.
void load_device_id(settings* config);

// The hardware address of a network interface, 6 bytes. 0 or -1.
[[nodiscard]] int get_ifc_mac(unsigned char out[6], const char* interface = "eth0");
