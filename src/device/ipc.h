// SPDX-License-Identifier: Apache-2.0
// Unix-domain datagram sockets between the daemon and the cloud agent. Owns the daemon's own
// socket, /var/run/pluginmgr_ctl: read by the control thread only, sent on by any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>

constexpr const char* CONTROL_SOCKET = "/var/run/pluginmgr_ctl";
constexpr const char* AGENT_SOCKET = "/var/run/cloudae_ctl";
constexpr const char* STATUS_QUERY_SOCKET = "/tmp/pluginmgrGetStatus_ctl";

constexpr size_t UNIX_PATH_SIZE = 108;  // terminator included

// A message of the agent's protocol: a 32-bit type, 16 more bytes of header, then text.
constexpr size_t AGENT_HEADER = 20;

// The daemon's own socket, or below 0 while it could not be bound. Set once by start-up.
extern int pluginmgr_ctl_fd;

// Binds a new close-on-exec socket to path, removing what stood there. The descriptor, -1 when no
// socket is to be had, -2 when binding fails; both logged.
[[nodiscard]] int bindUnixSocket(const char* path);

// Sends one datagram. Bytes sent, or -1: at once for a null or empty destination, after a second
// for a receiver that does not take it.
[[nodiscard]] ssize_t sendUnixSocket(int fd, const char* to_path, const void* data, size_t length);

// Receives one datagram of at most size bytes and, when there was one, the sender's path (empty
// for an unbound sender). Blocks: wait with select first. As recvfrom().
[[nodiscard]] ssize_t recvUnixSocket(int fd, void* buffer, size_t size,
                                     char (*from_path)[UNIX_PATH_SIZE]);
