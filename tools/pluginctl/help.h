// SPDX-License-Identifier: Apache-2.0
// What `pluginctl --help` prints.
#pragma once

extern const char* const HELP;
