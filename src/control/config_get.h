// SPDX-License-Identifier: Apache-2.0
// The method "gw.config.get": one parameter id a request, one reply. Control thread.
#pragma once

#include "control/boa_protocol.h"

// Answers the id in the request's query text. Without an id, or with one that is not in the
// table, nothing is sent. Id 80025 waits up to 20 seconds for the upgrade thread.
void handle_config_get(const boa_request& request);
