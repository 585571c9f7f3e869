// SPDX-License-Identifier: Apache-2.0
#include "control_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/text.h"
#include "control/agent_messages.h"
#include "device/ipc.h"
#include "interrupt.h"

static_assert(MAX_MESSAGE == AGENT_MESSAGE_SIZE - AGENT_HEADER);

namespace {

sockaddr_un address_of(const char* path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    set_text(address.sun_path, path);
    return address;
}

bool join(int fd, const char* path, int (*call)(int, const sockaddr*, socklen_t)) {
    const sockaddr_un address = address_of(path);
    return call(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool send_to_daemon(int fd, uint32_t type, std::string_view text) {
    char message[AGENT_MESSAGE_SIZE] = {};
    memcpy(message, &type, sizeof type);
    const size_t length = text.copy(message + AGENT_HEADER, MAX_MESSAGE);
    return join(fd, CONTROL_SOCKET, connect) && send(fd, message, AGENT_HEADER + length, 0) >= 0;
}

unique_fd new_socket() {
    return unique_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

// A folder with a socket's name in it; both go at its end.
class socket_place {
  public:
    socket_place() {
        made_ = mkdtemp(folder_) != nullptr;
        (void)format_text(path_, "%s/ctl", folder_);  // always fits
    }
    ~socket_place() {
        const int reason = errno;  // why the exchange failed, perhaps
        if (made_) {
            (void)unlink(path_);  // it may not have come about
            (void)rmdir(folder_);
        }
        errno = reason;
    }
    socket_place(const socket_place&) = delete;
    socket_place& operator=(const socket_place&) = delete;

    [[nodiscard]] bool made() const { return made_; }
    [[nodiscard]] const char* path() const { return path_; }

  private:
    bool made_ = false;
    char folder_[sizeof "/tmp/pluginctl-XXXXXX"] = "/tmp/pluginctl-XXXXXX";
    char path_[sizeof "/tmp/pluginctl-XXXXXX/ctl"] = {};
};

ending receive(int fd, double timeout, agent_answer* out) {
    char answer[AGENT_MESSAGE_SIZE] = {};
    pollfd wait = {fd, POLLIN, 0};
    if (poll(&wait, 1, static_cast<int>(timeout * 1000)) <= 0) {
        return ending::SILENT;
    }
    const ssize_t length = recv(fd, answer, sizeof answer, MSG_DONTWAIT);
    if (length < static_cast<ssize_t>(AGENT_HEADER)) {
        return ending::SILENT;
    }
    memcpy(&out->type, answer, sizeof out->type);
    out->text.assign(answer + AGENT_HEADER, static_cast<size_t>(length) - AGENT_HEADER);
    return ending::ANSWERED;
}

}  // namespace

ending send_message(uint32_t type, std::string_view text) {
    const unique_fd fd = new_socket();
    return fd && send_to_daemon(fd.get(), type, text) ? ending::ANSWERED : ending::REFUSED;
}

ending ask_message(uint32_t type, std::string_view text, double timeout, agent_answer* out) {
    const hold_signals held;
    const socket_place place;
    const unique_fd fd = new_socket();
    if (!place.made() || !fd || !join(fd.get(), place.path(), bind) ||
        !send_to_daemon(fd.get(), type, text)) {
        return ending::REFUSED;
    }
    return receive(fd.get(), timeout, out);
}
