// SPDX-License-Identifier: Apache-2.0
#include "net/transport.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <resolv.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>

#include "base/handles.h"
#include "base/result.h"
#include "base/text.h"
#include "config/settings.h"
#include "log/tb_log.h"
#include "net/dns.h"
#include "net/socket_io.h"

namespace {

constexpr int MSS_ABOVE = 512;   // tcp_mss is applied between
constexpr int MSS_BELOW = 1420;  // these two
constexpr int MIN_IO_SECONDS = 10;
constexpr int MAX_WAIT_SECONDS = 120;
constexpr long long SEND_LIMIT = 10;  // the time of so many full waits is all a send may take

void apply_mss(int socket) {
    const int mss = to_int(text_of(pluginmgr_config.tcp_mss));
    if (mss > MSS_ABOVE && mss < MSS_BELOW) {
        // The connection works without it.
        (void)setsockopt(socket, IPPROTO_TCP, TCP_MAXSEG, &mss, sizeof mss);
    }
}

// Whether a call on a socket failed for now only.
bool is_again(int error) {
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

// How long a single write may make no headway.
int io_seconds() {
    return std::max(limited_wait(pluginmgr_config.conn_timeout), MIN_IO_SECONDS);
}

// What a pending connect came to, once the socket is writable. 0, or -1 with errno.
int connect_result(int socket) {
    int error = 0;
    socklen_t length = sizeof error;
    if (getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) != 0) {
        return FAILED;
    }
    if (error != 0) {
        errno = error;
        return FAILED;
    }
    return 0;
}

bool ask_system(const char* host, in_addr* address) {
    addrinfo hints = {};
    hints.ai_flags = AI_PASSIVE;
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &found) != 0) {
        return false;
    }
    sockaddr_in first = {};
    memcpy(&first, found->ai_addr, sizeof first);
    freeaddrinfo(found);
    *address = first.sin_addr;
    return true;
}

// Whether there is something for the reader, if only the end.
bool has_leftover(const https_conn& conn) {
    char first = '\0';
    const bool came = has_pending({.socket = conn.socket, .ssl = conn.ssl}) ||
                      recv(conn.socket, &first, sizeof first, MSG_PEEK) >= 0;
    return came && (conn.ssl == nullptr || has_payload(conn));
}

// The broadcast address, to which no connection succeeds, for a text that is no address.
in_addr parse_address(const char* text) {
    in_addr address = {};
    if (inet_pton(AF_INET, text, &address) != 1) {
        address.s_addr = INADDR_NONE;
    }
    return address;
}

}  // namespace

long long now_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000LL + now.tv_nsec / 1000000;
}

long long deadline_in(long long seconds) {
    return now_ms() + std::max(seconds, 0LL) * 1000;
}

int wait_until(int socket, short events, long long deadline) {
    for (;;) {
        const auto limit = static_cast<int>(std::clamp<long long>(deadline - now_ms(), 0, INT_MAX));
        pollfd watched = {socket, events, 0};
        const int ready = poll(&watched, 1, limit);
        if (ready > 0) {
            return 0;
        }
        if (ready == 0) {
            errno = ETIMEDOUT;
            return FAILED;
        }
        if (errno != EINTR) {
            return FAILED;
        }
    }
}

int limited_wait(int seconds) {
    return seconds > 0 ? std::min(seconds, MAX_WAIT_SECONDS) : MAX_WAIT_SECONDS;
}

long long send_deadline() {
    return deadline_in(SEND_LIMIT * io_seconds());
}

bool wait_to_send(int socket, short events, long long end) {
    const long long deadline = std::min(deadline_in(io_seconds()), end);
    return wait_until(socket, events, deadline) == 0 && now_ms() < end;
}

int new_tcp_socket(const char* function) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        log_err(function, __LINE__, "Socket Error: %s", strerror(errno));
    }
    return fd;
}

long read_stream(net_stream* stream, char* out, size_t size) {
    if (stream->ssl != nullptr) {
        return read_tls(stream, out, size);
    }
    const ssize_t count = recv(stream->socket, out, size, 0);
    return count < 0 && is_again(errno) ? READ_AGAIN : count;
}

int dns_resove(const char* host, https_conn* conn, char* text, size_t text_size) {
    char dotted[IPV4_TEXT_SIZE] = {};
    in_addr address = {};
    if (ask_system(host, &address)) {
        (void)inet_ntop(AF_INET, &address, dotted, sizeof dotted);  // always fits
        log_msg(LOG_API, LEVEL_PROGRESS, __func__, __LINE__, "IP address [%s] for hostname - <%s>",
                dotted, host);
    } else {
        (void)res_init();  // the servers may have changed since; with old ones it fails as well
        const int code = dns_lookup(host, &dotted);
        if (code != 0) {
            log_err(__func__, __LINE__, "check dns address!!! getaddrinfo(%d) - %s.", code,
                    gai_strerror(code));
            return ERR_RESOLVE;
        }
        log_msg(LOG_API, LEVEL_PROGRESS, __func__, __LINE__,
                "internal resolv IP address [%s] for hostname - <%s>", dotted, host);
        address = parse_address(dotted);
    }
    if (conn != nullptr) {
        conn->server_address = address.s_addr;
    }
    if (text != nullptr) {
        memset(text, 0, text_size);
        copy_text(text, text_size, dotted);
    }
    return 0;
}

int connect_nonb(int socket, const sockaddr* address, socklen_t length, int seconds) {
    apply_mss(socket);
    if (connect(socket, address, length) != 0) {
        // An interrupted connect goes on by itself, as a pending one does.
        if (errno != EINPROGRESS && errno != EINTR && errno != 0) {
            return FAILED;
        }
        if (wait_until(socket, POLLOUT, deadline_in(limited_wait(seconds))) != 0) {
            const int reason = errno;
            if (reason != ETIMEDOUT) {
                (void)fputs("select error: sockfd not set", stderr);
            }
            errno = reason;
            return FAILED;
        }
        return connect_result(socket);
    }
    return 0;
}

int wait_readable(int socket, int seconds) {
    return wait_until(socket, POLLIN, deadline_in(seconds));
}

peer_state https_peer_state(const https_conn& conn) {
    tcp_info info = {};
    socklen_t length = sizeof info;
    if (getsockopt(conn.socket, IPPROTO_TCP, TCP_INFO, &info, &length) != 0) {
        return peer_state::unknown;
    }
    const bool spent = info.tcpi_state == TCP_CLOSE_WAIT || has_leftover(conn);
    return spent ? peer_state::closed : peer_state::open;
}

int check_https_conn(https_conn* conn) {
    if (conn->socket == -1) {
        return FAILED;
    }
    if (https_peer_state(*conn) == peer_state::closed) {
        close_https(conn);
        return FAILED;
    }
    return 0;
}

int connect_http(const char* host, int port) {
    char dotted[IPV4_TEXT_SIZE] = {};
    if (dns_resove(host, nullptr, dotted, sizeof dotted) != 0) {
        return FAILED;
    }
    unique_fd fd(new_tcp_socket(__func__));
    if (!fd) {
        return FAILED;
    }
    sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<uint16_t>(port));
    peer.sin_addr = parse_address(dotted);
    if (connect_nonb(fd.get(), reinterpret_cast<const sockaddr*>(&peer), sizeof peer,
                     pluginmgr_config.conn_timeout) != 0) {
        log_err(__func__, __LINE__, "Connect %s:%d Error: %s", host, port, strerror(errno));
        fd.reset();
        (void)res_init();  // the next attempt resolves afresh
        return FAILED;
    }
    return fd.release();
}

int send_http_buf(int socket, const void* data, size_t length) {
    if (socket <= 0) {  // 0 is refused too
        log_err(__func__, __LINE__, "http doesn't connected");
        return FAILED;
    }
    const auto* bytes = static_cast<const char*>(data);
    const long long end = send_deadline();
    for (size_t sent = 0; sent < length;) {
        const ssize_t count = send(socket, bytes + sent, length - sent, MSG_NOSIGNAL);
        if (count < 0 && is_again(errno) && wait_to_send(socket, POLLOUT, end)) {
            continue;
        }
        if (count < 1) {
            log_err(__func__, __LINE__, "send Error");
            return FAILED;
        }
        sent += static_cast<size_t>(count);
        log_msg(LOG_API, LEVEL_TRACE, __func__, __LINE__, "%zu bytes send OK!", sent);
    }
    return 0;
}

int send_http_str(int socket, const char* text) {
    return send_http_buf(socket, text, strlen(text));
}
