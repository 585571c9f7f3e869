// SPDX-License-Identifier: Apache-2.0
// What the files of this folder share below transport.h: bounded waits, new sockets, and one read
// from either kind of connection. For this folder only. No state; any thread.
#pragma once

#include <poll.h>

#include <cstddef>

struct https_conn;
struct ssl_st;

// Milliseconds of the clock that nobody sets.
long long now_ms();
// The instant so many seconds from now.
long long deadline_in(long long seconds);

// Waits for events (POLLIN, POLLOUT) until a deadline of now_ms(); an interrupted wait goes on. 0
// when the socket is marked, also by an error or a hang-up, which the next read or write will
// tell; else -1 with errno set: ETIMEDOUT after a wait in vain.
[[nodiscard]] int wait_until(int socket, short events, long long deadline);

// When a send that begins now has to be over: ten times the wait that conn_timeout gives, which is
// 10 s at least.
long long send_deadline();
// Waits for events before the next step of a send that may take until end. False after such a wait
// in vain, and when the time is over.
[[nodiscard]] bool wait_to_send(int socket, short events, long long end);

// A non-blocking IPv4 stream socket. -1 when there is none, which is logged for function.
[[nodiscard]] int new_tcp_socket(const char* function);

// Where an answer comes from: TLS when ssl is set, else a plain socket. Borrows both.
struct net_stream {
    int socket = -1;
    ssl_st* ssl = nullptr;
    short events = POLLIN;  // what the next wait is for
    int error = 0;          // the TLS library's class of the last read, 0 is none
};

constexpr long READ_AGAIN = -2;  // nothing for the reader yet: wait for stream.events

// One read that never blocks. Bytes read, READ_AGAIN, or 0 or -1 at the end of the connection.
[[nodiscard]] long read_stream(net_stream* stream, char* out, size_t size);
// The half of read_stream that needs the TLS library.
[[nodiscard]] long read_tls(net_stream* stream, char* out, size_t size);
// Whether the TLS library holds received bytes, which no wait on the socket would report.
[[nodiscard]] bool has_pending(const net_stream& stream);
// Whether a reader of an open TLS connection would get something now, the end and half a record
// included. What the TLS library keeps to itself, such as session tickets, is taken in.
[[nodiscard]] bool has_payload(const https_conn& conn);
// Says on an open TLS connection that nothing more will be sent, waiting as a send does until that
// can be said. close_https is still due.
void end_sending(https_conn* conn);
