// SPDX-License-Identifier: Apache-2.0
// Settings pushed by the device's update tooling in /var/tmp/cloud_upgrade.ini: applied, written
// back and the file removed. Control thread.
#pragma once

// Always 0. Without a file nothing happens, nor with one that others may have written: it is an
// error line and left alone.
int handle_update_config();
