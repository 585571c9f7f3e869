// SPDX-License-Identifier: Apache-2.0
// What settings that the device's update tooling pushes bring about: agents restarted, the device
// activated and bound, connections to former servers closed. Control thread.
#pragma once

// Applies the file, writes back what is new and removes it. Always 0; without a file nothing
// happens.
int handle_update_config();
