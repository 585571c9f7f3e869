// SPDX-License-Identifier: Apache-2.0
// What the device's firmware tells: its WAN status tool and the web interface's progress file.
// Leaves nothing behind. Any thread.
#pragma once

// 1 when the WAN is up, 0 otherwise.
int get_wan_status();

// 1 when the progress file reports "100%", -1 when it reports anything else or cannot be read, 0
// when path (the target of the download) cannot be opened.
int check_download_rate(const char* path);
