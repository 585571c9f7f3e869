// SPDX-License-Identifier: Apache-2.0
#include "world.h"

#include <openssl/ssl.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "base/handles.h"
#include "base/text.h"
#include "cloud/events.h"
#include "codec/encode.h"
#include "config/settings.h"
#include "control/boa_protocol.h"
#include "device/ipc.h"
#include "log/tb_log.h"
#include "net/dns.h"
#include "net/http.h"
#include "upgrade/check_cycle.h"

world_state world;

namespace {

constexpr int REPLY_FD = 300;  // far above what the daemon opens

std::vector<unique_fd> peers;  // the far ends of this run's connections
size_t next_piece = 0;
jmp_buf restart;

// Connects fd to a far end that this side keeps.
int connect_to_peer(int fd, int type) {
    int ends[2] = {-1, -1};
    require(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    const unique_fd near(ends[0]);
    require(dup2(near.get(), fd) == fd, "dup2");
    peers.emplace_back(ends[1]);
    return ends[1];
}

bool is_stream(int fd) {
    int type = 0;
    socklen_t length = sizeof type;
    return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
}

// The lowest free descriptor; what stays open moves it.
int free_descriptor() {
    const unique_fd lowest(dup(STDERR_FILENO));
    return lowest.get();
}

// Outside of its quotes a command runs nothing but the daemon's own words.
void check_command(std::string_view command) {
    bool quoted = false;
    for (size_t i = 0; i < command.size(); i++) {
        const char c = command[i];
        if (!quoted && c == '\\') {
            i++;
        } else if (c == '\'') {
            quoted = !quoted;
        } else if (!quoted) {
            require(strchr("`$\n", c) == nullptr, "foreign text in a shell command");
        }
    }
    require(!quoted, "open quote in a shell command");
}

// A request keeps to one request line and the headers that the daemon means to send, once each.
void check_request(std::string_view request) {
    constexpr const char* NAMES[] = {
        "Host",          "User-Agent",   "Accept",         "Accept-Language", "Accept-Encoding",
        "Authorization", "Content-Type", "Content-Length", "Connection"};
    std::string seen = "\n";
    size_t at = request.find('\n');
    require(at != std::string_view::npos &&
                request.substr(0, at).find(" HTTP/1.") != std::string_view::npos,
            "a request line");
    while (++at < request.size() && request[at] != '\r' && request[at] != '\n') {
        const size_t end = std::min(request.find('\n', at), request.size());
        const std::string name(request.substr(at, request.substr(at, end - at).find(':')));
        require(std::ranges::count(NAMES, name) == 1, "a foreign header");
        require(seen.find("\n" + name + "\n") == std::string::npos, "a header twice");
        seen += name + "\n";
        at = end;
    }
}

// What a name server says to a query: one address, or what the input says.
std::string dns_reply(std::string query) {
    if (!world.resolves) {
        return world.answer;
    }
    query.replace(2, 6, "\x81\x80\0\1\0\1", 6);  // an answer, with one record
    return query.append("\xc0\x0c\0\1\0\1\0\0\0\5\0\4\x7f\0\0\1", 16);
}

}  // namespace

void require(bool holds, const char* what) {
    if (!holds) {
        (void)fprintf(stderr, "does not hold: %s\n", what);
        abort();
    }
}

unsigned fuzz_input::byte() {
    const unsigned first = left.empty() ? 0 : static_cast<unsigned char>(left.front());
    left.remove_prefix(left.empty() ? 0 : 1);
    return first;
}

std::string fuzz_input::part() {
    const size_t length = std::min(left.find('\xFF'), left.size());
    std::string text(left.substr(0, length));
    left.remove_prefix(std::min(length + 1, left.size()));
    return text;
}

void put_file(const char* path, std::string_view text) {
    std::ofstream(path, std::ios::binary) << text;
}

std::string file_text(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

extern "C" {
int LLVMFuzzerInitialize(int*, char***);
int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    require(access("/lab-out", F_OK) == 0, "inside the lab, see fuzz.py");
    put_file("/etc/nsswitch.conf", "hosts: files\n");  // the rest is the daemon's own resolver's
    require(mkdir("/var/log/versions", 0700) + mkdir("/tmp/web", 0700) == 0, "folders");
    // Every log line is formatted, and written nowhere.
    require(freopen("/dev/null", "we", stdout) != nullptr, "/dev/null");
    log_init();
    for (int component = 0; component < LOG_COMPONENTS; component++) {
        log_set_level(component, 9);
    }
    url_escape_init();
    set_dns_servers("192.0.2.1", "", "");
    boa.socket = REPLY_FD;
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const int free_before = free_descriptor();
    world = {};
    next_piece = 0;
    pluginmgr_config = {};
    activation_state = 0;
    fuzz_input in = {{reinterpret_cast<const char*>(data), size}};
    if (setjmp(restart) == 0) {
        body(in);
    }
    close_https(&api_connection);
    close_https(&accounts_connection);
    peers.clear();
    require(free_before == free_descriptor(), "a descriptor stays open");
    return 0;
}

// What the linker puts in place of the C library's functions (see CMakeLists.txt).
int __wrap_connect(int fd, const sockaddr* /*address*/, socklen_t /*length*/) {
    if (!is_stream(fd)) {
        return connect_to_peer(fd, SOCK_DGRAM) < 0 ? -1 : 0;  // it answers what is sent to it
    }
    const int peer = connect_to_peer(fd, SOCK_STREAM | SOCK_NONBLOCK);
    (void)write(peer, world.answer.data(), world.answer.size());
    return shutdown(peer, SHUT_WR);
}

ssize_t __real_send(int fd, const void* data, size_t length, int flags);
ssize_t __wrap_send(int fd, const void* data, size_t length, int /*flags*/) {
    const std::string sent(static_cast<const char*>(data), length);  // reads all of it
    if (is_stream(fd)) {
        check_request(sent);
    } else {
        std::string reply = dns_reply(sent);
        reply.replace(0, std::min<size_t>(reply.size(), 2), sent, 0, 2);  // the query's id
        (void)__real_send(peers.back().get(), reply.data(), reply.size(), 0);
    }
    return static_cast<ssize_t>(length);
}

ssize_t __real_recv(int fd, void* out, size_t size, int flags);
ssize_t __wrap_recv(int fd, void* out, size_t size, int flags) {
    if (!world.pieces.empty() && is_stream(fd)) {
        const auto most =
            static_cast<unsigned char>(world.pieces[next_piece++ % world.pieces.size()]);
        if (most == 0 && next_piece % 8 != 0) {
            errno = EAGAIN;
            return -1;
        }
        size = std::min<size_t>(size, most < 128 ? std::max<size_t>(most, 1) : size);
    }
    return __real_recv(fd, out, size, flags);
}

ssize_t __real_sendto(int, const void*, size_t, int, const sockaddr*, socklen_t);
ssize_t __wrap_sendto(int fd, const void* data, size_t length, int flags, const sockaddr* to,
                      socklen_t to_length) {
    const std::string sent(static_cast<const char*>(data), length);  // reads all of it
    if (to->sa_family != AF_UNIX) {
        require(fd == REPLY_FD && length >= REQUEST_HEADER && length <= REPLY_SIZE, "reply size");
    } else if (text_of(reinterpret_cast<const sockaddr_un*>(to)->sun_path) != AGENT_SOCKET) {
        return __real_sendto(fd, data, length, flags, to, to_length);
    } else {
        const int agent = connect_to_peer(fd, SOCK_DGRAM);
        (void)__real_send(agent, world.answer.data(), world.answer.size(), 0);
    }
    return static_cast<ssize_t>(length);
}

int __wrap_posix_spawn(pid_t* /*child*/, const char* path, const posix_spawn_file_actions_t*,
                       const posix_spawnattr_t*, char* const arguments[], char* const*) {
    require(strcmp(path, "/bin/sh") == 0, "only the shell is started");
    check_command(arguments[2]);
    world.commands++;
    return ENOENT;
}

unsigned __wrap_sleep(unsigned /*seconds*/) {
    return 0;
}

int __wrap_usleep(useconds_t /*microseconds*/) {
    upgrade_check_flag = 0;  // the upgrade thread has done its pass meanwhile
    return 0;
}

[[noreturn]] void __wrap__exit(int /*status*/) {
    longjmp(restart, 1);
}

// A TLS library whose sessions are the plain bytes. The objects show what is not released.
// clang-format off
struct ssl_st { int fd = -1; };
struct ssl_ctx_st { int none = 0; };
SSL_CTX* SSL_CTX_new(const SSL_METHOD*) { return new ssl_ctx_st; }
void SSL_CTX_free(SSL_CTX* context) { delete context; }
long SSL_CTX_ctrl(SSL_CTX*, int, long, void*) { return 1; }
long SSL_ctrl(SSL*, int, long, void*) { return 1; }
void SSL_set_msg_callback(SSL*, void (*)(int, int, int, const void*, size_t, SSL*, void*)) {}
SSL* SSL_new(SSL_CTX*) { return new ssl_st; }
void SSL_free(SSL* session) { delete session; }
int SSL_set_fd(SSL* session, int fd) { session->fd = fd; return 1; }
int SSL_connect(SSL*) { return 1; }
int SSL_shutdown(SSL*) { return 1; }
void SSL_set_shutdown(SSL*, int) {}
int SSL_has_pending(const SSL*) { return 0; }
// clang-format on
int SSL_read(SSL* session, void* out, int size) {
    return static_cast<int>(__wrap_recv(session->fd, out, static_cast<size_t>(size), MSG_DONTWAIT));
}
int SSL_peek(SSL* session, void* out, int size) {
    return static_cast<int>(__real_recv(session->fd, out, static_cast<size_t>(size), MSG_PEEK));
}
int SSL_write(SSL* session, const void* data, int length) {
    return static_cast<int>(__wrap_send(session->fd, data, static_cast<size_t>(length), 0));
}
int SSL_get_error(const SSL* /*session*/, int result) {
    return result > 0 ? SSL_ERROR_NONE
                      : (result == 0 ? SSL_ERROR_ZERO_RETURN : SSL_ERROR_WANT_READ);
}
}
