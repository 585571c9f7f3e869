// SPDX-License-Identifier: Apache-2.0
// The method "gw.config.set": pairs of a parameter and a value, handled in a fixed order whatever
// their order in the query; several of them reply, so one request may bring several replies. A
// change of the run mode that needs it restarts the daemon after the replies. Control thread.
#pragma once

#include "control/boa_protocol.h"

void handle_config_set(const boa_request& request);
