// SPDX-License-Identifier: Apache-2.0
#include "control/control_thread.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <iterator>
#include <string_view>

#include "base/handles.h"
#include "config/settings.h"
#include "control/agent_messages.h"
#include "control/boa_protocol.h"
#include "control/control_users.h"
#include "control/pushed_settings.h"
#include "control/supervision.h"
#include "device/ipc.h"
#include "log/tb_log.h"
#include "net/http.h"

namespace {

constexpr int UDP_PROTOCOL = 17;
constexpr const char* LOOPBACK = "127.0.0.1";
constexpr int WAIT_MS = 100;
constexpr useconds_t IDLE_PAUSE = 100000;

void allow_reuse(int fd) {
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == -1) {
        const int error = errno;
        log_err("param_id", __LINE__, "setsockopt, exit!!!");
        errno = error;
        perror("setsockopt");
        _exit(1);  // not exit(): its destructors would race with the other threads
    }
}

bool open_control_port() {
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, UDP_PROTOCOL));
    if (fd.get() <= 0) {
        log_err("param_id", __LINE__, "open socket error");
        return false;
    }
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, "param_id", __LINE__, "param config thread start %d",
            static_cast<int>(getpid()));
    boa.peer = {};
    boa.peer.sin_family = AF_INET;
    boa.peer.sin_port = htons(CONTROL_PORT);
    boa.peer.sin_addr.s_addr = inet_addr(LOOPBACK);
    allow_reuse(fd.get());
    const int bound = bind(fd.get(), reinterpret_cast<sockaddr*>(&boa.peer), sizeof boa.peer);
    if (bound < 0) {
        log_err("param_id", __LINE__, "socket binding error rc=%d", bound);
        return false;
    }
    const int closes = fcntl(fd.get(), F_SETFD, FD_CLOEXEC);
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, "param_id", __LINE__, "close_on_exec, rc=%d", closes);
    boa.socket = fd.release();
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, "param_id", __LINE__, "pluginmgr thread start - fd=%d",
            boa.socket);
    return true;
}

void note_new_settings() {
    (void)handle_update_config();  // always 0
}

void note_cloudae() {
    log_msg(LOG_SERVICE, LEVEL_TRACE, "param_id", __LINE__, "got keepcloudae");
    last_keepcloudae = time(nullptr);
}

void note_cloudsafety() {
    log_msg(LOG_SERVICE, LEVEL_TRACE, "param_id", __LINE__, "got keepcloudsafety");
    last_keepcloudsafety = time(nullptr);
}

// Datagrams in plain text, compared by prefix.
struct notice {
    std::string_view text;
    void (*handle)();
};

constexpr notice notices[] = {
    {"download cloud file success", note_new_settings},
    {"keepcloudae", note_cloudae},
    {"keepcloudsafety", note_cloudsafety},
};

bool handle_notice(std::string_view datagram) {
    for (const notice& row : notices) {
        if (datagram.starts_with(row.text)) {
            row.handle();
            return true;
        }
    }
    return false;
}

// A socket that shares the port may have sent it, and the answer would come here as a request.
bool is_own_address(const sockaddr_in& sender) {
    return sender.sin_port == htons(CONTROL_PORT) && sender.sin_addr.s_addr == inet_addr(LOOPBACK);
}

void handle_datagram() {
    boa_request request = {};
    boa.peer_length = sizeof boa.peer;
    // Not waiting: a datagram with a bad checksum wakes poll() and is gone by now.
    const ssize_t length = recvfrom(boa.socket, request.bytes, REQUEST_SIZE, MSG_DONTWAIT,
                                    reinterpret_cast<sockaddr*>(&boa.peer), &boa.peer_length);
    if (length < 1) {
        log_err("param_id", __LINE__, "UDP stack receive from (%d)", static_cast<int>(length));
        return;
    }
    if (is_own_address(boa.peer) || !may_command(boa.peer)) {
        return;
    }
    if (handle_notice({request.bytes, static_cast<size_t>(length)})) {
        return;
    }
    log_msg(LOG_SERVICE, LEVEL_TRACE, "param_id", __LINE__,
            "pluginmgr rcv from boa - cookie=%d,remote_ip=%x,num_variable=%d",
            static_cast<int>(request.cookie()), request.remote_ip(),
            static_cast<int>(request.num_variable()));
    (void)http_handle_query(request, CONTROL_PORT);  // always 0
}

void idle_pass() {
    usleep(IDLE_PAUSE);
    report_ignored();
    check_api_connection();
    do_extra_task();
}

void serve_pass() {
    // A control socket that could not be bound is below 0, which poll() skips.
    pollfd waiting[] = {{pluginmgr_ctl_fd, POLLIN, 0}, {boa.socket, POLLIN, 0}};
    if (poll(waiting, std::size(waiting), WAIT_MS) <= 0) {
        idle_pass();
        return;
    }
    if (waiting[0].revents != 0) {
        handle_agent_message();
    }
    if (waiting[1].revents != 0) {
        handle_datagram();
    }
}

}  // namespace

void* param_id(void* /*argument*/) {
    if (!open_control_port()) {
        return nullptr;
    }
    load_control_users(pluginmgr_config.control_users);
    last_keepcloudae = time(nullptr);
    last_keepcloudsafety = last_keepcloudae;
    (void)handle_update_config();  // always 0
    for (;;) {
        serve_pass();
    }
}
