// SPDX-License-Identifier: Apache-2.0
// Small files of the device that others write, and host names and addresses of anybody's making on
// their way to /etc/hosts: no foreign command, no foreign line.
#include <arpa/inet.h>

#include "base/shell.h"
#include "base/text.h"
#include "config/settings.h"
#include "device/hosts.h"
#include "device/kv.h"
#include "device/versions.h"
#include "world.h"

namespace {

void change_hosts(const std::string& value) {
    const server_pin pin = split_server_pin(value.c_str());
    in_addr address = {};
    const bool good = inet_pton(AF_INET, pin.address, &address) == 1 && !is_empty(pin.host) &&
                      shell_word(pin.host) == pin.host;
    checkHostsFile(pin.host, pin.address);
    (void)add_domain_to_hosts(pin.address, pin.host);
    require(good || world.commands == 0, "a bad pair runs nothing");
    (void)delete_domain_in_hosts(pin.address, pin.host);
}

}  // namespace

void body(fuzz_input& in) {
    const std::string value = in.part();
    const std::string text = in.rest();
    put_file("/etc/hosts", text);
    put_file("/var/log/version", text);
    put_file("/var/log/versions/app", text);
    change_hosts(value);
    read_revision();
    char list[64] = {};
    (void)list_versions(list, sizeof list);
    kv_entry table[3] = {};
    (void)read_kv_pairs("/etc/hosts", ' ', table);
    for (const kv_entry& entry : table) {
        require((entry.name == nullptr) == (entry.value == nullptr), "pairs are whole");
    }
    const std::string command = "echo " + shell_word(text) + " " + shell_words(value);
    (void)run_shell(command.c_str());  // its quotes are looked at
}
