// SPDX-License-Identifier: Apache-2.0
// Whole files over HTTP and HTTPS. Each transfer opens and closes a connection of its own. Any
// thread or forked child; a stalled peer is given up after 1200 seconds.
#pragma once

#include "net/transport.h"

constexpr int TRANSFER_NO_FILE = -1;  // target cannot be opened; also: no such scheme
constexpr int TRANSFER_NO_HOST = -2;  // plain HTTP: not resolved; redirects exhausted
constexpr int TRANSFER_NO_CONNECT = -3;
constexpr int TRANSFER_NOT_SENT = -4;

// Whether url may be left to wget, which knows nothing of tls_ca_file: while that is set only plain
// HTTP, where there is nothing to verify.
[[nodiscard]] bool wget_may_fetch(const char* url);

// Saves the body of a GET into target, by the URL's scheme; a scheme that is neither is -1. 0 also
// when the answer was an error page or broke off, or has been given up when limit bytes of it were
// saved: judge by the file's size.
[[nodiscard]] int download_file(const char* url, const char* target, long long limit = NO_LIMIT);
[[nodiscard]] int http_get_file(const char* url, const char* target, long long limit = NO_LIMIT);
[[nodiscard]] int https_get_file(const char* url, const char* target, long long limit = NO_LIMIT);

// Sends a file as the body of a POST and reads no answer. 0, -1, or a code of connect_https.
[[nodiscard]] int https_post_file(const char* host, const char* path, const char* file);
