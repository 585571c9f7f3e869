// SPDX-License-Identifier: Apache-2.0
// The method "gw.boa.report": an application report of the web server that must reach the cloud.
// Owns the report whose forwarding failed; a later one replaces it. Control thread.
#pragma once

#include "control/boa_protocol.h"

// Forwards the query text from "method=" on; no reply. Ignored in mode "ums".
void handle_boa_report(const boa_request& request);

// Tries once more to forward the report that is held, if any. Called on every tick, so a report
// is repeated every 30 seconds until it succeeds; there is no limit, on purpose.
void resend_boa_report();
