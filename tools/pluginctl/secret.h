// SPDX-License-Identifier: Apache-2.0
// Passwords, tokens and verification codes. They are never taken from the command line, which
// every user of the machine can read, but from a file or from the terminal without echo.
#pragma once

#include <string>

// Reads one: the first line of the file from ("-" for standard input), or what is typed at the
// terminal when from is null. what names it in the prompt and in messages. False, told, when
// there is no such file, no terminal, or a line of 1024 characters or more.
[[nodiscard]] bool read_secret(const char* what, const char* from, std::string* out);
