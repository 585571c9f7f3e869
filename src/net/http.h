// SPDX-License-Identifier: Apache-2.0
// Requests to the cloud's REST API and its JSON answers, over connections that are kept alive.
// Owns the API connection, the accounts connection and the client lock, the one that keeps two
// threads off the API connection. Codes: base/result.h.
#pragma once

#include <cstddef>
#include <string>

#include "base/json.h"
#include "base/lock.h"
#include "net/transport.h"

constexpr size_t ANSWER_SIZE = 4096;         // an answer of this size or more is dropped
constexpr size_t ANSWER_HEADER_SIZE = 2048;  // of a saved answer header, terminator included
constexpr size_t CREDENTIAL_SIZE = 512;      // of a Base64 credential

extern https_conn api_connection;       // used under the client lock
extern https_conn accounts_connection;  // used by the accounts login only

// Holds the client lock for the length of a scope. Not recursive.
extern pthread_mutex_t api_connection_lock;
struct client_lock {
    mutex_guard held{&api_connection_lock};
};

// Closes the API connection when its server has closed it; skips the look while somebody uses
// the connection. Control thread, when idle.
void check_api_connection();

// The text of a request, whole whatever its length. auth begins with "KEY" (device key), "TOKEN"
// (activation token) or "pass_TOKEN" (login token); anything else sends no credential. body may be
// null. Control characters of the path are sent escaped.
[[nodiscard]] std::string construct_request(const char* method, const char* path, const char* body,
                                            const char* auth);

// One exchange on an open connection. body_file, json and header are optional: a path for the
// answer's body, the parsed body (null when it is not JSON or too long), ANSWER_HEADER_SIZE bytes
// for the answer's header. 0, ERR_NOT_CONNECTED, ERR_SEND or ERR_RECEIVE.
[[nodiscard]] int https_handle_request_save_header(https_conn* conn, const char* request,
                                                   const char* body_file, json_ptr* json,
                                                   char* header);
[[nodiscard]] int https_handle_request(https_conn* conn, const char* request, const char* body_file,
                                       json_ptr* json);

// The same on a connection that is kept alive: connects when needed, and once more when a reused
// connection fails. conn null is the API connection, whose lock the caller holds. 0 or any code
// of the transport or the exchange.
[[nodiscard]] int new_https_request_2(https_conn* conn, const char* url, const char* request,
                                      const char* body_file, json_ptr* json);
// The same on the API connection, taking the client lock for its whole length.
[[nodiscard]] int https_request(const char* url, const char* request, const char* body_file,
                                json_ptr* json);

// Copies a value of an answer, also of the first of its "devices", as text into out (size
// bytes). 0, or with out untouched: -1 when it is not there, ERR_TOO_LONG, logged, when it does not
// fit.
[[nodiscard]] int get_param_from_json_resp(json_object* json, const char* key, char* out,
                                           size_t size);
// The answer's "code", a number or a text that begins with one; ERR_NO_CODE for any other.
[[nodiscard]] int get_response_code_from_json_resp(json_object* json);
