// SPDX-License-Identifier: Apache-2.0
// What all verbs share: judging answers and queries, and telling what is wrong with them.
#pragma once

#include <string>
#include <string_view>

#include "client.h"
#include "commands.h"

struct json_object;

// Writes "pluginctl: " and a printf text to standard error, after what standard output holds.
void complain(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Tells why there is no answer; EXIT_NOBODY.
int nobody(ending end);

// Tells that an answer cannot be made out; EXIT_NOT_DONE.
int unreadable(const std::string& reply);

// The "code" of a reply; 0 for one without.
[[nodiscard]] int code_of(const std::string& reply);

// EXIT_DONE, or EXIT_NOT_DONE, told in words, for a reply with a code other than 0 and for one that
// is no JSON.
int judge_code(const std::string& reply);

// Prints a reply as one line of JSON, whatever it holds.
void print_json(const std::string& reply);

// Sends a query that has one answer with a code. EXIT_DONE, or the exit status, told. The answer
// is in reply when there was one, and printed in JSON mode. A query that is too long is refused.
int request(const command_context& context, const std::string& query, std::string* reply);

// The text of a member, fit for a terminal; "-" when it is missing or empty.
[[nodiscard]] std::string field(json_object* value, const char* key);

// False, told, for a value with '&': it would end there, for the daemon decodes nothing.
[[nodiscard]] bool can_carry(const std::string& what, std::string_view value);

// False, told, for a value that is longer than limit: the daemon would cut it.
[[nodiscard]] bool is_within(const std::string& what, std::string_view value, size_t limit);

// False, told, for a query text that is too long for a request.
[[nodiscard]] bool fits(const std::string& query);
