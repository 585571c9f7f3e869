// SPDX-License-Identifier: Apache-2.0
// The datagrams between the web server and the daemon on 127.0.0.1:6907: framing of requests,
// replies, dispatch of the methods. Owns the UDP socket and the peer address, which every receive
// overwrites, so a reply goes to whoever sent the request being handled. Control thread.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

constexpr int CONTROL_PORT = 6907;
constexpr size_t REQUEST_SIZE = 256;
constexpr size_t REQUEST_HEADER = 32;
constexpr size_t REPLY_SIZE = 4096;
constexpr size_t REPLY_BODY = REPLY_SIZE - REQUEST_HEADER;  // 4064 bytes of JSON text
constexpr uint32_t ECHO_MARKER = 0x8888;

// A request as it arrived, cleared before each receive. One byte more than a datagram can fill
// keeps the query text terminated. Integers are in host byte order.
struct boa_request {
    char bytes[REQUEST_SIZE + 1] = {};

    [[nodiscard]] uint32_t word(size_t offset) const;
    [[nodiscard]] uint32_t cookie() const { return word(8); }
    [[nodiscard]] uint32_t remote_ip() const { return word(12); }
    [[nodiscard]] uint32_t num_variable() const { return word(16); }
    // True when the sender wants its echo word back.
    [[nodiscard]] bool wants_echo() const { return word(24) == ECHO_MARKER && bytes[28] == 0; }
    [[nodiscard]] uint32_t echo_word() const { return word(20); }
    [[nodiscard]] const char* query() const { return bytes + REQUEST_HEADER; }
};

struct boa_channel {
    int socket = -1;
    sockaddr_in peer = {};
    socklen_t peer_length = sizeof(sockaddr_in);
};
extern boa_channel boa;

// Sends one reply to the peer: the header with the request's cookie and echo, then the JSON text
// without terminator, cut at REPLY_BODY. A failing send is ignored.
void send_reply(const boa_request& request, std::string_view json);

// The reply {"result":"ok" or "error","code":N}. Its trace ends in the text's length when asked.
void send_result(const boa_request& request, int code, bool trace_length = false);

// "ok" for code 0, "error" for any other.
[[nodiscard]] const char* result_word(int code);

// Handles one request: finds its method and hands it over. port is passed and not used. 0.
int http_handle_query(const boa_request& request, int port);
