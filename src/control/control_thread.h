// SPDX-License-Identifier: Apache-2.0
// The control thread: local front door and clock of the daemon. Serves the UDP port and the
// daemon's Unix socket, one message at a time; when nothing arrives for a tenth of a second, the
// periodic work runs.
#pragma once

// Thread entry; the argument is not used. Returns null only when the port cannot be opened or
// bound; the rest of the daemon then goes on without a control service.
void* param_id(void* argument);
