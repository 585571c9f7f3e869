// SPDX-License-Identifier: Apache-2.0
// Following one upgrade until it has ended. The protocol tells no events: the plug-in list is
// asked for twice a second, and this is where its numbers are made out. The daemon itself may go
// and come back in the middle.
#pragma once

#include <string>

#include "client.h"
#include "plugins.h"
#include "screen.h"

// Folder in which the daemon's downloads grow.
constexpr const char* DOWNLOAD_FOLDER = "/tmp/dl_cloud";

enum class verdict { GOING, INSTALLED, FAILED, NOBODY };

struct judgement {
    verdict what = verdict::GOING;
    std::string words;  // what to tell, empty while it is going
};

// What is known about the upgrade so far.
struct upgrade_watch {
    std::string name;
    std::string target;        // version that is being installed
    double requested_at = 0;   // seconds_now()
    bool started = false;      // the daemon was seen at work on it
    bool daemon_left = false;  // the port was closed for a while since the request
    double installed_at = 0;   // when the installation was first seen done, for those
                               // applications whose upgrade ends with the daemon's restart
    plugin last = {};          // the entry as last told
};

// Judges one more look at the list. entry is null when the list has no such plug-in (any more).
[[nodiscard]] judgement judge_upgrade(upgrade_watch* watch, const plugin* entry, double now);

// Follows the upgrade to its end, with progress on out.
[[nodiscard]] judgement follow_upgrade(const client& daemon, upgrade_watch* watch, screen* out);
