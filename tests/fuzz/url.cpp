// SPDX-License-Identifier: Apache-2.0
// Host, path and port of a URL, into fields of any size; put together again they split alike.
#include "device/url.h"

#include <cstring>
#include <memory>

#include "world.h"

namespace {

struct split {
    std::string host;
    std::string path;
    int port = 7;
};

// In heap fields of exactly those sizes, so that one byte more is noticed.
split split_into(const std::string& url, size_t host_size, size_t path_size) {
    const std::unique_ptr<char[]> host(new char[host_size]);
    const std::unique_ptr<char[]> path(new char[path_size]);
    split found;
    split_url(url.c_str(), host.get(), path.get(), &found.port, host_size, path_size);
    require(strnlen(host.get(), host_size) < host_size, "the host is terminated");
    require(strnlen(path.get(), path_size) < path_size, "the path is terminated");
    found.host = host.get();
    found.path = path.get();
    return found;
}

}  // namespace

void body(fuzz_input& in) {
    const size_t host_size = in.byte() + 1;
    const size_t path_size = in.byte() + 1;
    const std::string url = in.rest().c_str();
    const split found = split_into(url, host_size, path_size);
    require(url.find(found.host) != std::string::npos, "the host stands in the URL");
    require(url.find(found.path) != std::string::npos, "the path stands in the URL");
    require(found.path.empty() || found.path[0] == '/', "a path begins with a slash");
    require(found.host.find_first_of("/:") == std::string::npos, "a host ends before the rest");
    require(found.port == 7 || !url.empty(), "an empty URL leaves the port");
    const std::string port = ":" + std::to_string(found.port);
    const split again =
        split_into("ftp://" + found.host + port + found.path, host_size + port.size(), path_size);
    require(again.host == found.host && again.path == found.path && again.port == found.port,
            "the same again");
}
