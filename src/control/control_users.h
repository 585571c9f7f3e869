// SPDX-License-Identifier: Apache-2.0
// Who may command on UDP 6907: with the setting control_users only the users named there. A
// datagram says nothing of its sender, so the kernel's socket diagnosis is asked whose the sockets
// at its source port are, at any address and of both families: who has one there can send as if
// from another's address. All of them have to belong to users in the list. Owns the list and the
// netlink socket. Control thread.
#pragma once

#include <netinet/in.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

constexpr size_t MAX_CONTROL_USERS = 32;

// Takes the setting in, once the control port is bound. Empty: everybody may command. Otherwise
// nobody may who is not in it; a name that is not in /etc/passwd, a 33rd user, and a kernel that
// cannot tell whose a socket is, are logged and admit nobody.
void load_control_users(const char* setting);

// Whether a datagram from there is to be served. Others are counted, and logged as below.
[[nodiscard]] bool may_command(const sockaddr_in& sender);

// Logs how many datagrams have been ignored since the last such line, once a minute at most.
void report_ignored();

// The numbers of the users in a list of names and numbers, separated by commas; blanks around them
// and empty places do not matter. How many went into users; what did not is logged.
[[nodiscard]] size_t parse_users(std::string_view list, const char* passwd_file,
                                 std::span<uid_t> users);

// The UDP sockets at a port, counted by whether their owner is one of users.
struct port_owners {
    in_port_t port;     // in network byte order
    uint32_t question;  // the number of the question; answers to others are passed over
    std::span<const uid_t> users;
    size_t admitted;
    size_t others;
};

// Counts what one part of the kernel's answer tells, any bytes. 0: the answer ends here; EAGAIN:
// another part follows; otherwise nothing may be made of the counts: EBADMSG or the kernel's errno.
[[nodiscard]] int read_owners(std::span<const char> part, port_owners* owners);
