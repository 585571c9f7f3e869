// SPDX-License-Identifier: Apache-2.0
// Ending and starting the programs under /var/run by name, through the shell. Holds no state. Any
// thread; a restart takes two seconds, a stop one.
#pragma once

// name: a program with optional arguments, which come from the daemon itself: "cloudae --ums" for
// one. action: one that begins with "restart" or "stop"; another one only has the name judged. 0,
// or FAILED, logged, when the first word is no program's name (base/name).
int act_on_program(const char* name, const char* action);
