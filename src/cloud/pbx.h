// SPDX-License-Identifier: Apache-2.0
// Client of the hosted PBX service: activation by QR code or verification code, and three reads
// made with the access token. Owns three files, each replaced whole and on success only: the QR
// image, the SIP account and the SIP status. Each call opens and closes a connection of its own.
// Control thread.
//
// Every operation returns 0, ERR_PBX_OFF while the service is switched off, ERR_NO_MAC, a code of
// the connection or the exchange, or what is said of it.
#pragma once

#include <cstddef>

#include "base/json.h"

constexpr const char* PBX_QR_IMAGE = "/tmp/web/qvrkqqr.png";
constexpr const char* PBX_CONFIG_FILE = "/var/config/cloud/sip.config";
constexpr const char* PBX_STATUS_FILE = "/tmp/quorvelsip.status";

// Replaces the account or the status file. 0, or FAILED, logged, with the old file untouched.
[[nodiscard]] int save_pbx_file(const char* path, json_object* object);

constexpr size_t PBX_QR_TOKEN_SIZE = 11;  // 10 characters and the terminator

// Fetches the QR image and the activation token that belongs to it, printable and cut to its size;
// an answer without a token leaves token as it was. ERR_PBX_REFUSED when the service answers with
// an error object or an error status, ERR_RECEIVE for an image that is empty, shorter than
// announced or cannot be stored.
[[nodiscard]] int quorvel_active_qr(char (&token)[PBX_QR_TOKEN_SIZE]);

// Asks whether the user has scanned the code; if so, the access token is stored. Or the service's
// own code.
[[nodiscard]] int quorvel_check_qr_active_status(const char* token);

// Activates with a verification code; the access token is stored. ERR_PBX_REFUSED clears the one
// in memory.
[[nodiscard]] int quorvel_active(const char* vcode);

// Read the SIP account and the SIP registration into their files. Or the service's own code.
[[nodiscard]] int quorvel_get_kq_config();
[[nodiscard]] int quorvel_get_kq_sipstatus();

// Reads one page of at most 100 extensions from the index start: the list as JSON text and the
// join prefix, each cut at its size. Or the service's own code.
[[nodiscard]] int quorvel_get_kq_extensions(const char* start, char* extensions,
                                            size_t extensions_size, char* join_prefix,
                                            size_t join_prefix_size);
