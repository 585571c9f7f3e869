// SPDX-License-Identifier: Apache-2.0
#include "control/query.h"

std::optional<std::string_view> query_value(std::string_view text, std::string_view key) {
    const size_t at = text.find(key);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view rest = text.substr(at + key.size());
    return rest.substr(0, rest.find('&'));
}
