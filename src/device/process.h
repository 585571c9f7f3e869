// SPDX-License-Identifier: Apache-2.0
// Running programs, as /proc shows them. No state; any thread.
#pragma once

#include <cstddef>

constexpr size_t PID_TEXT_SIZE = 16;

// Finds the first process whose executable's path contains name; its id as text. 0 or -1.
[[nodiscard]] int find_process_by_exe(const char* name, char (*pid_out)[PID_TEXT_SIZE]);
