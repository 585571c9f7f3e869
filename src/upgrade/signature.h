// SPDX-License-Identifier: Apache-2.0
// Package signatures. No state; any thread.
#pragma once

#include <cstddef>

// Signature of a package that brings version: 40 lower-case hexadecimal digits in out (size
// bytes, at least 41). 0, or -1 with out empty when the package cannot be read.
[[nodiscard]] int upgrade_signature(const char* package, const char* version, char* out,
                                    size_t size);
