// SPDX-License-Identifier: Apache-2.0
// The download of one package into /tmp/dl_cloud, by a child process that is polled twice a
// second for at most ten minutes. Methods alternate after each failure: the daemon's own client,
// wget. Neither writes more than a byte beyond the announced size.
#pragma once

// Thread body, detaches itself; argument is the app_info of the local entry.
void* download_run(void* entry);
