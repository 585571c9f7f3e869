// SPDX-License-Identifier: Apache-2.0
// Foreign text made fit for a terminal or for who reads JSON. It is UTF-8 by agreement only. No
// state.
#pragma once

#include <string>
#include <string_view>

// The text without what a terminal would obey: control characters (U+0000 to U+001F, U+007F to
// U+009F), marks that turn the direction of writing, separators of lines, and bytes that are no
// UTF-8 become '?'.
[[nodiscard]] std::string printable(std::string_view text);

// The same characters as JSON on one line. Text that is JSON, but for control characters inside its
// strings, stays as it is with such characters as \uXXXX; any other becomes an object of an error
// and the text: {"result":"error","message":"the answer is not JSON","answer":...}.
[[nodiscard]] std::string safe_json(std::string_view text);
