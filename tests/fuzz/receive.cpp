// SPDX-License-Identifier: Apache-2.0
// HTTP answers in pieces, into buffers of any size, with and without a file; and downloads. What is
// kept of an answer stands in it, in one piece; a whole answer arrives whole, cut anyhow.
#include <cstring>
#include <memory>

#include "base/handles.h"
#include "net/transfer.h"
#include "net/transport.h"
#include "world.h"

namespace {

constexpr const char* TARGET = "/tmp/web/download";
constexpr int PATIENCE = 60;  // seconds; nothing blocks, but the machine may be busy

// Into a heap buffer of exactly the size that is promised, so that one byte more is noticed.
int receive_into(size_t size, FILE* file) {
    const unique_fd socket(connect_http("host.example", 80));
    const std::unique_ptr<char[]> buffer(new char[size + 1]());
    const int count = recv_http(socket.get(), buffer.get(), size, PATIENCE, file);
    require(count >= GOT_REDIRECT && count != -1, "a count or a redirect");
    require(count <= static_cast<int>(world.answer.size()), "no more than came");
    require(strnlen(buffer.get(), size + 1) <= size, "the buffer is terminated");
    require(world.answer.find(buffer.get()) != std::string::npos, "the buffer holds what came");
    return count;
}

int receive_into_file(size_t size) {
    const file_ptr file(fopen(TARGET, "we"));
    return receive_into(size, file.get());
}

// The header comes first, and fits.
void receive_whole(size_t size) {
    const std::string text = world.answer;
    world.answer = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(text.size()) + "\r\n\r\n";
    world.answer += text;
    world.pieces.insert(0, 1, '\x7f');
    const int count = receive_into_file(size + 64);
    require(count == static_cast<int>(world.answer.size()), "all that was announced");
    require(file_text(TARGET) == text, "the body, byte for byte");
}

}  // namespace

void body(fuzz_input& in) {
    const unsigned what = in.byte();
    const size_t size = in.byte() * (1U + (what >> 4)) + 1;
    world.pieces = in.part();
    world.answer = in.rest();
    if (what % 5 == 0) {
        (void)receive_into(size, nullptr);
        return;
    }
    if (what % 5 == 1) {
        (void)receive_into_file(size);
    } else if (what % 5 == 2) {
        receive_whole(size);
    } else {
        (void)download_file(what % 5 == 3 ? "http://h/p" : "https://h/p", TARGET);
    }
    require(world.answer.find(file_text(TARGET)) != std::string::npos, "the file holds what came");
}
