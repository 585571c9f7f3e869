// SPDX-License-Identifier: Apache-2.0
// Login of the device's user at the accounts server (OAuth2 password grant). Owns the user name
// and the password, which are never written to a file, and uses the accounts connection. The
// token goes into the settings record, in memory only. Control thread.
#pragma once

#include <cstddef>

constexpr size_t ACCOUNT_TEXT_SIZE = 32;  // terminator included

// Of the next login; set by the web pages before they ask for one.
extern char account_user[ACCOUNT_TEXT_SIZE];
extern char account_password[ACCOUNT_TEXT_SIZE];

// Logs in at host. 0, a code of connect_https, or ERR_LOGIN with the token cleared. An answer
// that lacks a token leaves the previous one.
[[nodiscard]] int login_accounts(const char* host);
