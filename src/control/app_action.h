// SPDX-License-Identifier: Apache-2.0
// What may be done to a program of the device: device/program ends and starts it, here it is
// fetched and replaced. Holds no state but the download URL. Any thread; a restart takes two
// seconds, a stop one.
#pragma once

// The URL of the "download" action; empty means that wget gets none.
extern char download_url[256];

// name: a program with optional arguments, "cloudae --ums" for one. action: begins with
// "restart", "stop", "download" or "update". 0, or -1, logged, when an argument is missing or empty
// or the first word of name is no program's (base/name): nothing is run then.
int do_app_action(const char* name, const char* action);
