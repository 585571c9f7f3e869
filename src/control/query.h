// SPDX-License-Identifier: Apache-2.0
// Values in a query text: key=value pairs joined by '&', no decoding. No state; any thread.
#pragma once

#include <optional>
#include <string_view>

// The value of the first "key=" anywhere in text, also at the end of a longer key; it runs to the
// next '&' or the end. key is written with its '='. Borrowed from text.
[[nodiscard]] std::optional<std::string_view> query_value(std::string_view text,
                                                          std::string_view key);
