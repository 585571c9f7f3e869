// SPDX-License-Identifier: Apache-2.0
// TCP and TLS connections and just enough HTTP to know when an answer is complete. Owns no
// record; the caller's https_conn is used by one thread at a time. Certificates are not verified
// and no server name is sent, unless the setting tls_ca_file names a file of authorities: then
// every TLS connection sends the name and asks for a certificate that holds it and leads to one of
// them. OpenSSL's types end here. SIGPIPE is blocked in the threads that come here. Codes:
// base/result.h.
#pragma once

#include <sys/socket.h>

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>

struct ssl_st;
struct ssl_ctx_st;

// One TLS client connection: closed (socket -1) or open, and then not to be moved. The address
// survives closing and is forgotten only when a TCP connect fails.
struct https_conn {
    int socket = -1;
    uint32_t server_address = 0;  // IPv4, network byte order; 0 is not resolved yet
    ssl_st* ssl = nullptr;
    ssl_ctx_st* ssl_ctx = nullptr;
    int messages = 0;  // of TLS's own, received since it was opened
};

constexpr long long NO_LIMIT = LLONG_MAX;
constexpr int GOT_REDIRECT = -2;  // of the receive functions; the buffer holds the location

// Whether tls_ca_file is set.
bool tls_is_verified();

// Once, before any connection. Main thread. The library itself, and with it some 300 kB of
// private memory, is only touched by the first connection.
void ssl_library_init();

// Resolves host with the system's resolver, then with the daemon's own. Stores the address in
// conn and its dotted text in text (text_size bytes), each when given. 0 or ERR_RESOLVE.
[[nodiscard]] int dns_resove(const char* host, https_conn* conn, char* text, size_t text_size);

// The seconds that are waited where the setting conn_timeout says so many: 120 at most, and 120
// also for 0 and less. Whoever may set it cannot make a thread wait for ever.
[[nodiscard]] int limited_wait(int seconds);

// Connects a non-blocking socket within limited_wait(seconds). 0, or -1 with errno set.
[[nodiscard]] int connect_nonb(int socket, const sockaddr* address, socklen_t length, int seconds);

// 0 when socket became readable within the seconds, else -1 with errno (ETIMEDOUT).
[[nodiscard]] int wait_readable(int socket, int seconds);

// The handshake, up to 8 seconds a wait and ten times that in all. The last result of SSL_connect:
// 1 is success.
[[nodiscard]] int ssl_connect_nonb(https_conn* conn);

// Marks the record closed without closing anything; leaves the address.
void init_https_conn(https_conn* conn);
// Sends the close notice, releases everything. Nothing happens to a closed record.
void close_https(https_conn* conn);
// -1 when the record is closed or is not to be used again (it is closed then), 0 otherwise.
int check_https_conn(https_conn* conn);

// How the peer stands, for the keep-alive rule between two requests; nothing is closed. Closed too
// is one that has sent what no request asked for, and one whose answer was given up: whatever comes
// from there would be taken for the next answer. Session tickets are no such thing, however late.
enum class peer_state { open, closed, unknown };
[[nodiscard]] peer_state https_peer_state(const https_conn& conn);

// Opens conn to the host and port of url. 0, ERR_RESOLVE, ERR_SOCKET, ERR_CONNECT or ERR_TLS; the
// last also, with the reason logged, for a certificate that tls_ca_file does not vouch for.
[[nodiscard]] int connect_https(https_conn* conn, const char* url);

// Sends everything, within ten times the limit of a write. 0 or -1.
[[nodiscard]] int send_https_buf(https_conn* conn, const void* data, size_t length);
[[nodiscard]] int send_https_str(https_conn* conn, const char* text);

// Receives one answer. buffer holds size bytes of it and one more for a terminator, so it is
// size + 1 bytes long. An answer that cannot fit overwrites the buffer as it comes; its body goes
// to file, when given, until that has got limit bytes: then the answer is given up. seconds limits
// each wait, ten times as long the whole answer. The number of bytes received (0 after a wait in
// vain), or GOT_REDIRECT. Of an answer that is given up in its middle the connection ends.
[[nodiscard]] int recv_https(https_conn* conn, char* buffer, size_t size, int seconds, FILE* file,
                             long long limit = NO_LIMIT);

// Plain HTTP: the descriptor, a non-blocking one, is the caller's. -1 when there is no connection.
// Time limits as above.
[[nodiscard]] int connect_http(const char* host, int port);
[[nodiscard]] int send_http_buf(int socket, const void* data, size_t length);
[[nodiscard]] int send_http_str(int socket, const char* text);
[[nodiscard]] int recv_http(int socket, char* buffer, size_t size, int seconds, FILE* file,
                            long long limit = NO_LIMIT);

// -1: text has no status line; 1: not a redirect, or one whose location has no end of line; 0: a
// 302, whose location, if it has one, now stands at the start of text.
int check_http_redirect(char* text);
