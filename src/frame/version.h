// SPDX-License-Identifier: Apache-2.0
// The release that this program is.
#pragma once

extern const char daemon_version[];
