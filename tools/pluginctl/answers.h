// SPDX-License-Identifier: Apache-2.0
// What all verbs share: judging answers and queries, and telling what is wrong with them.
#pragma once

#include <string>
#include <string_view>

#include "client.h"

// Writes "pluginctl: " and a printf text to standard error, after what standard output holds.
void complain(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Tells why there is no answer; EXIT_NOBODY.
int nobody(ending end);

// Tells that an answer cannot be made out; EXIT_NOT_DONE.
int unreadable(const std::string& reply);

// The "code" of a reply; 0 for one without.
[[nodiscard]] int code_of(const std::string& reply);

// EXIT_DONE, or EXIT_NOT_DONE for a reply with a code other than 0, which is told in words.
int judge_code(const std::string& reply);

void print_as_it_came(const std::string& reply);

// False, told, for a value with '&': it would end there, for the daemon decodes nothing.
[[nodiscard]] bool can_carry(const std::string& what, std::string_view value);

// False, told, for a query text that is too long for a request.
[[nodiscard]] bool fits(const std::string& query);
