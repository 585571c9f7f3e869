// SPDX-License-Identifier: Apache-2.0
#include "device/ipc.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/handles.h"
#include "base/result.h"
#include "base/text.h"
#include "log/tb_log.h"

int pluginmgr_ctl_fd = -1;

namespace {

constexpr int BIND_FAILED = -2;
constexpr timeval SEND_LIMIT = {.tv_sec = 1, .tv_usec = 0};

static_assert(sizeof(sockaddr_un::sun_path) == UNIX_PATH_SIZE);

// The whole structure's size is always given as the address length, so the zeros after the path
// end it.
sockaddr_un address_of(const char* path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    set_text(address.sun_path, path);
    return address;
}

}  // namespace

int bindUnixSocket(const char* path) {
    unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        log_err("bindUnixSocket", 349, "cannot create unix socket fd");
        return FAILED;
    }
    (void)unlink(path);  // left by an earlier run, or nothing
    const sockaddr_un address = address_of(path);
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        log_err("bindUnixSocket", 360, "can not bind sun_path");
        return BIND_FAILED;
    }
    // The queue of an agent that has stopped reading fills up after some ten datagrams; who sends
    // then must come back, or nobody is left to restart the agent.
    (void)setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &SEND_LIMIT, sizeof SEND_LIMIT);
    return fd.release();
}

ssize_t sendUnixSocket(int fd, const char* to_path, const void* data, size_t length) {
    if (is_empty(to_path)) {
        return FAILED;
    }
    const sockaddr_un address = address_of(to_path);
    return sendto(fd, data, length, 0, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

ssize_t recvUnixSocket(int fd, void* buffer, size_t size, char (*from_path)[UNIX_PATH_SIZE]) {
    sockaddr_un address = {};
    socklen_t length = sizeof address;
    const ssize_t count =
        recvfrom(fd, buffer, size, 0, reinterpret_cast<sockaddr*>(&address), &length);
    if (count > 0) {
        set_text(*from_path, text_of(address.sun_path));
    }
    return count;
}
