// SPDX-License-Identifier: Apache-2.0
// Splitting of URLs. No state; any thread.
#pragma once

#include <cstddef>

// Host and path (with its leading '/', or empty), each cut at its size; port by scheme (80, 443,
// 21; 443 without one) or as written. A null or empty url clears host and path and leaves port.
void split_url(const char* url, char* host, char* path, int* port, size_t host_size,
               size_t path_size);
