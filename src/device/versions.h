// SPDX-License-Identifier: Apache-2.0
// Revisions of the device, its uptime, and the versions of its components: /var/log/version,
// /proc/uptime and the folder /var/log/versions. Writes hw_revision, sw_revision and device_model
// of the settings, and the file /var/log/versions/cloud.
#pragma once

#include <cstddef>
#include <string_view>

// Presets the model and reads both revisions; what the file lacks stays as it was. Main thread at
// start, then the upgrade thread while the hardware revision is unknown.
void read_revision();

// The second field of /proc/uptime. 0 or -1.
[[nodiscard]] int read_uptime(char* out, size_t size);

// Puts text in place of all of /var/log/versions/cloud, where a reader never finds it empty. Bytes
// written, or -1 with the old text kept and the reason logged.
long write_cloud_version(std::string_view text);

// Every line of every file in the folder, trimmed and joined with ','. 0, or -1 when there is
// none.
[[nodiscard]] int list_versions(char* out, size_t size);
