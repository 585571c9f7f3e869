// SPDX-License-Identifier: Apache-2.0
// Host, path and port of a URL, into fields of any size.
#include "device/url.h"

#include <cstring>
#include <memory>

#include "world.h"

namespace {

void body(fuzz_input& in) {
    const size_t host_size = in.byte() + 1;
    const size_t path_size = in.byte() + 1;
    const std::string url = in.rest();
    const std::unique_ptr<char[]> host(new char[host_size]);
    const std::unique_ptr<char[]> path(new char[path_size]);
    int port = 7;
    split_url(url.c_str(), host.get(), path.get(), &port, host_size, path_size);
    require(strnlen(host.get(), host_size) < host_size, "the host is terminated");
    require(strnlen(path.get(), path_size) < path_size, "the path is terminated");
    require(path[0] == '\0' || path[0] == '/', "a path begins with a slash");
    require(strpbrk(host.get(), "/:") == nullptr, "a host ends before path and port");
    require(port == 7 || url.c_str()[0] != '\0', "an empty URL leaves the port");
}

}  // namespace

FUZZ_TARGET(body)
