// SPDX-License-Identifier: Apache-2.0
// What the web pages show of the plug-ins: versions, offers and states, as one JSON document. Holds
// no state. Control thread.
#pragma once

#include <cstddef>

// Writes the status document into buffer and returns its length, less than size - 1. Release
// notes are shortened until it fits, then entries are left out.
[[nodiscard]] size_t dumpVersionStatus(char* buffer, size_t size);
