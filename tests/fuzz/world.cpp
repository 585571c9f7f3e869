// SPDX-License-Identifier: Apache-2.0
#include "world.h"

#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
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
#include <filesystem>
#include <iterator>
#include <vector>

#include "base/handles.h"
#include "cloud/events.h"
#include "codec/encode.h"
#include "config/settings.h"
#include "control/boa_protocol.h"
#include "log/tb_log.h"
#include "net/http.h"
#include "upgrade/check_cycle.h"

world_state world;

namespace {

constexpr int REPLY_FD = 300;  // far above what the daemon opens

std::string root;              // the private folder
std::vector<unique_fd> peers;  // the far ends of this run's connections
size_t next_piece = 0;
jmp_buf restart;

constexpr const char* FIXED[] = {
    "/var/config/", "/var/log/",        "/var/run/",      "/var/tmp/",    "/etc/hosts",
    "/tmp/web/",    "/tmp/quorvelsip.", "/tmp/tmpconfig", "/dev/rkflash", "/tmp/pluginmgr"};

bool is_fixed(const char* path) {
    return std::any_of(std::begin(FIXED), std::end(FIXED), [path](const char* prefix) {
        return strncmp(path, prefix, strlen(prefix)) == 0;
    });
}

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

}  // namespace

void require(bool holds, const char* what) {
    if (!holds) {
        (void)fprintf(stderr, "does not hold: %s\n", what);
        abort();
    }
}

unsigned fuzz_input::byte() {
    if (left_.empty()) {
        return 0;
    }
    const auto first = static_cast<unsigned char>(left_.front());
    left_.remove_prefix(1);
    return first;
}

std::string fuzz_input::part() {
    const size_t length = std::min(left_.find('\xFF'), left_.size());
    std::string text(left_.substr(0, length));
    left_.remove_prefix(std::min(length + 1, left_.size()));
    return text;
}

std::string inside(const char* path) {
    return root + path;
}

void put_file(const char* path, std::string_view text) {
    const unique_fd file(open(inside(path).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600));
    require(write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()), path);
}

std::string file_text(const char* path) {
    const unique_fd file(open(inside(path).c_str(), O_RDONLY));
    std::string text(65536, '\0');
    const ssize_t count = file ? read(file.get(), text.data(), text.size()) : 0;
    text.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return text;
}

void run_once(void (*body)(fuzz_input& in), const uint8_t* data, size_t size) {
    const int free_before = dup(STDERR_FILENO);
    (void)close(free_before);
    world = {};
    next_piece = 0;
    pluginmgr_config = {};
    activation_state = 0;
    fuzz_input in(data, size);
    if (setjmp(restart) == 0) {
        body(in);
    }
    close_https(&api_connection);
    close_https(&accounts_connection);
    peers.clear();
    const int free_after = dup(STDERR_FILENO);
    (void)close(free_after);
    require(free_before == free_after, "a descriptor stays open");
}

extern "C" int LLVMFuzzerInitialize(int*, char***);
extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
    const char* parent = getenv("TMPDIR");
    root = std::string(parent != nullptr ? parent : "/dev/shm") + "/fuzz_world.XXXXXX";
    require(mkdtemp(root.data()) != nullptr, "no private folder");
    for (const char* folder : {"/var/config/cloud", "/var/log/versions", "/var/run", "/var/tmp",
                               "/etc", "/tmp/web", "/dev"}) {
        std::filesystem::create_directories(inside(folder));
    }
    (void)atexit([] { std::filesystem::remove_all(root); });
    // Every log line is formatted, and written nowhere.
    const unique_fd nowhere(open("/dev/null", O_WRONLY));
    (void)dup2(nowhere.get(), STDOUT_FILENO);
    log_init();
    for (int component = 0; component < LOG_COMPONENTS; component++) {
        log_set_level(component, 9);
    }
    url_escape_init();
    boa.socket = REPLY_FD;
    return 0;
}

// What the linker puts in place of the C library's functions (see CMakeLists.txt).
extern "C" {
int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, mode_t mode) {
    return __real_open(is_fixed(path) ? inside(path).c_str() : path, flags, mode);
}
FILE* __real_fopen(const char* path, const char* mode);
FILE* __wrap_fopen(const char* path, const char* mode) {
    return __real_fopen(is_fixed(path) ? inside(path).c_str() : path, mode);
}
int __real_mkostemp(char* path, int flags);
int __wrap_mkostemp(char* path, int flags) {
    std::string made = inside(path);
    const int fd = __real_mkostemp(made.data(), flags);
    memcpy(path, made.data() + made.size() - strlen(path), strlen(path));  // the name found
    return fd;
}
int __real_unlink(const char* path);
int __wrap_unlink(const char* path) {
    return __real_unlink(is_fixed(path) ? inside(path).c_str() : path);
}
int __real_rename(const char* from, const char* to);
int __wrap_rename(const char* from, const char* to) {
    return is_fixed(from) ? __real_rename(inside(from).c_str(), inside(to).c_str())
                          : __real_rename(from, to);
}
int __real_stat(const char* path, struct stat* out);
int __wrap_stat(const char* path, struct stat* out) {
    return __real_stat(is_fixed(path) ? inside(path).c_str() : path, out);
}
DIR* __real_opendir(const char* path);
DIR* __wrap_opendir(const char* path) {
    return __real_opendir(is_fixed(path) ? inside(path).c_str() : path);
}
int __real_bind(int fd, const sockaddr* address, socklen_t length);
int __wrap_bind(int fd, const sockaddr* address, socklen_t length) {
    if (address->sa_family != AF_UNIX) {
        return 0;
    }
    sockaddr_un local = {};
    memcpy(&local, address, std::min<size_t>(length, sizeof local));
    const std::string path = is_fixed(local.sun_path) ? inside(local.sun_path) : local.sun_path;
    (void)snprintf(local.sun_path, sizeof local.sun_path, "%s", path.c_str());
    return __real_bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local);
}

int __wrap_getaddrinfo(const char* host, const char* service, const addrinfo* hints,
                       addrinfo** found);
int __real_getaddrinfo(const char* host, const char* service, const addrinfo* hints,
                       addrinfo** found);
int __wrap_getaddrinfo(const char* /*host*/, const char* service, const addrinfo* hints,
                       addrinfo** found) {
    return world.resolves ? __real_getaddrinfo("127.0.0.1", service, hints, found) : EAI_NONAME;
}

int __wrap_connect(int fd, const sockaddr* /*address*/, socklen_t /*length*/) {
    if (!is_stream(fd)) {
        return connect_to_peer(fd, SOCK_DGRAM) < 0 ? -1 : 0;  // it answers what is sent to it
    }
    const int peer = connect_to_peer(fd, SOCK_STREAM);
    (void)write(peer, world.answer.data(), world.answer.size());
    return shutdown(peer, SHUT_WR);
}
ssize_t __real_send(int fd, const void* data, size_t length, int flags);
ssize_t __wrap_send(int fd, const void* data, size_t length, int /*flags*/) {
    const std::string sent(static_cast<const char*>(data), length);  // reads all of it
    if (!is_stream(fd)) {
        std::string reply = world.answer;
        if (world.honest && reply.size() >= 2) {
            reply.replace(0, 2, sent, 0, 2);
        }
        (void)__real_send(peers.back().get(), reply.data(), reply.size(), 0);
    } else {
        check_request(sent);
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
ssize_t __real_sendto(int fd, const void* data, size_t length, int flags, const sockaddr* to,
                      socklen_t to_length);
ssize_t __wrap_sendto(int fd, const void* data, size_t length, int flags, const sockaddr* to,
                      socklen_t to_length) {
    const std::string sent(static_cast<const char*>(data), length);  // reads all of it
    if (to->sa_family != AF_UNIX) {
        require(fd == REPLY_FD && length >= REQUEST_HEADER && length <= REPLY_SIZE, "reply size");
        return static_cast<ssize_t>(length);
    }
    if (!is_fixed(reinterpret_cast<const sockaddr_un*>(to)->sun_path)) {
        return __real_sendto(fd, data, length, flags, to, to_length);
    }
    const int agent = connect_to_peer(fd, SOCK_DGRAM);
    (void)__real_send(agent, world.answer.data(), world.answer.size(), 0);
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
struct ssl_st {
    int fd = -1;
};
struct ssl_ctx_st {
    int none = 0;
};
SSL_CTX* SSL_CTX_new(const SSL_METHOD* /*method*/) {
    return new ssl_ctx_st;
}
void SSL_CTX_free(SSL_CTX* context) {
    delete context;
}
long SSL_CTX_ctrl(SSL_CTX*, int, long, void*) {
    return 1;
}
SSL* SSL_new(SSL_CTX* /*context*/) {
    return new ssl_st;
}
void SSL_free(SSL* session) {
    delete session;
}
int SSL_set_fd(SSL* session, int fd) {
    session->fd = fd;
    return 1;
}
int SSL_connect(SSL* /*session*/) {
    return 1;
}
int SSL_shutdown(SSL* /*session*/) {
    return 1;
}
int SSL_read(SSL* session, void* out, int size) {
    return static_cast<int>(__wrap_recv(session->fd, out, static_cast<size_t>(size), MSG_DONTWAIT));
}
int SSL_write(SSL* session, const void* data, int length) {
    return static_cast<int>(__wrap_send(session->fd, data, static_cast<size_t>(length), 0));
}
int SSL_get_error(const SSL* /*session*/, int result) {
    return result > 0 ? SSL_ERROR_NONE
                      : (result == 0 ? SSL_ERROR_ZERO_RETURN : SSL_ERROR_WANT_READ);
}
int SSL_has_pending(const SSL* /*session*/) {
    return 0;
}
}
