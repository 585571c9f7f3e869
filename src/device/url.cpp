// SPDX-License-Identifier: Apache-2.0
#include "device/url.h"

#include <cstring>
#include <string_view>

#include "base/text.h"

namespace {

struct scheme {
    std::string_view prefix;
    int port;
};

constexpr scheme SCHEMES[] = {{"http://", 80}, {"https://", 443}, {"ftp://", 21}};
constexpr int DEFAULT_PORT = 443;

}  // namespace

void split_url(const char* url, char* host, char* path, int* port, size_t host_size,
               size_t path_size) {
    memset(host, 0, host_size);
    memset(path, 0, path_size);
    if (is_empty(url)) {
        return;
    }
    std::string_view rest = url;
    *port = DEFAULT_PORT;
    for (const scheme& candidate : SCHEMES) {
        if (rest.starts_with(candidate.prefix)) {
            *port = candidate.port;
            rest.remove_prefix(candidate.prefix.size());
            break;
        }
    }
    const size_t slash = rest.find('/');
    copy_text(host, host_size, rest.substr(0, slash));
    if (slash != std::string_view::npos) {
        copy_text(path, path_size, rest.substr(slash));
    }
    const std::string_view name(host, strnlen(host, host_size));
    const size_t colon = name.find(':');
    if (colon != std::string_view::npos) {
        *port = to_int(name.substr(colon + 1));
        host[colon] = '\0';
    }
}
