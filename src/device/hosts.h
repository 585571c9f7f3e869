// SPDX-License-Identifier: Apache-2.0
// Lines of /etc/hosts, changed through the shell's echo and sed. A domain that is no plain word
// (see base/shell.h) or an address that is not dotted IPv4 is refused with a log line. When the
// disk is too full for the file and a line more, or the command fails, the file stays as it was and
// an error is logged. No state.
#pragma once

#include <cstddef>
#include <string_view>

// Keeps /etc/hosts mapping domain to ip: replaces the address of a line whose name is domain
// (only when old and new address are equally long) or inserts a line after the first.
void checkHostsFile(const char* domain, const char* ip);

// Appends "ip domain domain". 0.
int add_domain_to_hosts(const char* ip, const char* domain);

// Removes every line that contains the address, also inside a longer one. The domain is not
// looked at. 0.
int delete_domain_in_hosts(const char* ip, const char* domain);

// A server that the user pins to an address, written "host|address"; blanks around each do not
// count. Without a bar both are empty.
constexpr size_t SERVER_PIN_SIZE = 256;  // of the text; holds what any request can bring
struct server_pin {
    char host[64] = {};
    char address[16] = {};
    bool fits = true;  // false: a half is too long for a pin, and both are empty
};
// A half that does not fit is logged.
[[nodiscard]] server_pin split_server_pin(std::string_view value);
// True when neither part is empty, so that /etc/hosts may be changed for it.
[[nodiscard]] bool is_whole(const server_pin& pin);
