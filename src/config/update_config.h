// SPDX-License-Identifier: Apache-2.0
// Settings pushed by the device's update tooling in /var/tmp/cloud_upgrade.ini: read, what is new
// taken over and written back, and the file removed. What follows from a new value is
// control/pushed_settings' business. Control thread.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "config/settings.h"

// Reads the file. False when there is none, and when others may have written it: that is an error
// line, and the file is left alone.
[[nodiscard]] bool read_pushed_settings(settings* pushed);

void remove_pushed_settings();

// Takes over a text that is given and new, and persists it in section Config; a failure there
// leaves the new value in effect until the next start. False when it is not.
[[nodiscard]] bool take_pushed_text(std::span<char> live, std::string_view pushed, const char* key);

// The same for a number, which is given when above 0.
[[nodiscard]] bool take_pushed_number(int32_t* live, int32_t pushed, const char* section,
                                      const char* key);
