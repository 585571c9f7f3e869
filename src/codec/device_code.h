// SPDX-License-Identifier: Apache-2.0
// The keyed code that the cloud agent asks the daemon for: 12 characters in, a UUID-shaped text
// out. Key and salt are deployment values. No state; any thread.
#pragma once

#include <cstddef>

constexpr size_t DEVICE_CODE_INPUT = 12;
constexpr size_t DEVICE_CODE_SIZE = 37;  // 36 characters and the terminator

// 0, or -1 when input or output is missing or input is not exactly 12 characters long.
[[nodiscard]] int derive_device_code(const char* input, char* output);
