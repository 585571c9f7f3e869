// SPDX-License-Identifier: Apache-2.0
// udp_echo PORT: sends every datagram back to where it came from, on loopback; the least that a
// UDP service can do. Ends by a signal.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>

#include "base/handles.h"
#include "base/text.h"

namespace {

constexpr size_t DATAGRAM_SIZE = 256;  // the largest request of the control protocol

[[noreturn]] void echo(int fd) {
    char datagram[DATAGRAM_SIZE] = {};
    for (;;) {
        sockaddr_in peer = {};
        socklen_t length = sizeof(peer);
        const ssize_t received = recvfrom(fd, datagram, sizeof(datagram), 0,
                                          reinterpret_cast<sockaddr*>(&peer), &length);
        if (received > 0) {
            (void)sendto(fd, datagram, static_cast<size_t>(received), 0,
                         reinterpret_cast<sockaddr*>(&peer), length);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: udp_echo PORT\n");
        return 2;
    }
    const unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(to_int(argv[1])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (!fd || bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        perror("udp_echo");
        return 1;
    }
    echo(fd.get());
}
