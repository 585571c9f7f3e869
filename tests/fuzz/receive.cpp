// SPDX-License-Identifier: Apache-2.0
// HTTP answers in pieces, into buffers of any size, with and without a file; and downloads.
#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <numeric>

#include "base/handles.h"
#include "net/transfer.h"
#include "net/transport.h"
#include "world.h"

namespace {

constexpr const char* TARGET = "/tmp/web/download";

// A heap buffer of exactly the size that is promised, so that one byte more is noticed.
void receive_into(size_t size, FILE* file) {
    const unique_fd socket(connect_http("host.example", 80));
    const std::unique_ptr<char[]> buffer(new char[size + 1]());
    const int count = recv_http(socket.get(), buffer.get(), size, 1, file);
    require(count >= GOT_REDIRECT && count != -1, "a count or a redirect");
    require(strnlen(buffer.get(), size + 1) <= size, "the buffer is terminated");
    require(file != nullptr || count <= static_cast<int>(world.answer.size()), "no more than came");
}

void body(fuzz_input& in) {
    const unsigned what = in.byte();
    const size_t size = in.byte() * (1U + (what >> 4)) + 1;
    world.pieces = in.part();
    world.answer = in.rest();
    if (what % 4 == 0) {
        receive_into(size, nullptr);
    } else if (what % 4 == 1) {
        const file_ptr file(fopen(TARGET, "we"));
        receive_into(size, file.get());
    } else {
        (void)download_file(what % 4 == 2 ? "http://h/p" : "https://h/p", TARGET);
        require(file_text(TARGET).size() <= 5 * world.answer.size(), "no more than came");
    }
}

}  // namespace

FUZZ_TARGET(body)
