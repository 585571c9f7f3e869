// SPDX-License-Identifier: Apache-2.0
// What the web pages see of the PBX service: the state query (id 80031), the extensions (id
// 80036) and the actions of "quorvel_action" and "device_vcode". The cached SIP user and server
// of the settings record belong to these functions. Control thread.
#pragma once

#include <string_view>

#include "control/boa_protocol.h"

void answer_pbx_state(const boa_request& request);
void answer_pbx_extensions(const boa_request& request);

// Activates with a verification code, forgets the SIP account of before, replies.
void activate_pbx(const boa_request& request, std::string_view vcode);

// Performs "check_kq_qrcode", "get_kq_qrcode" or "get_kq_config"; another action has no reply.
void act_on_pbx(const boa_request& request, std::string_view action);
