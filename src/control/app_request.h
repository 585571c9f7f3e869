// SPDX-License-Identifier: Apache-2.0
// The method "gw.app.action": what the user asks for in the web pages. Each recognised action
// sends a reply of its own. Control thread.
#pragma once

#include "control/boa_protocol.h"

void handle_app_request(const boa_request& request);
