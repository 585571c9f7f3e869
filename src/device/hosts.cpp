// SPDX-License-Identifier: Apache-2.0
#include "device/hosts.h"

#include <arpa/inet.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "base/shell.h"
#include "base/text.h"
#include "device/kv.h"
#include "log/tb_log.h"

namespace {

constexpr const char* HOSTS_FILE = "/etc/hosts";
constexpr size_t MAX_ENTRIES = 10;  // a name further down is not seen and added again
constexpr size_t MAX_COMMAND = 1024;
constexpr size_t MAX_REPLACE_COMMAND = 256;

bool is_dotted_ipv4(const char* ip) {
    in_addr address = {};
    return ip != nullptr && inet_pton(AF_INET, ip, &address) == 1;
}

// Such a word means nothing to the shell, nor to sed where it stands below.
bool is_plain_word(const char* text) {
    return !is_empty(text) && shell_word(text) == text;
}

bool is_safe_address(const char* ip) {
    if (!is_dotted_ipv4(ip)) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__, "no address for %s:%s", HOSTS_FILE,
                ip == nullptr ? "" : ip);
        return false;
    }
    return true;
}

bool is_safe_pair(const char* domain, const char* ip) {
    if (!is_plain_word(domain)) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__, "no domain for %s:%s", HOSTS_FILE,
                domain == nullptr ? "" : domain);
        return false;
    }
    return is_safe_address(ip);
}

// Room for the whole file and a line more: BusyBox's sed puts its output in the file's place
// without looking whether all of it could be written, and so would empty the file on a full disk.
bool has_room() {
    struct stat file = {};
    struct statvfs disk = {};
    if (stat(HOSTS_FILE, &file) != 0 || statvfs(HOSTS_FILE, &disk) != 0 || disk.f_blocks == 0) {
        return true;  // nothing to lose, or a memory file system without a limit
    }
    const uint64_t room = static_cast<uint64_t>(disk.f_bavail) * disk.f_frsize;
    return room > static_cast<uint64_t>(file.st_size) + MAX_COMMAND;
}

void change_hosts(const char* function, const char* command) {
    const char* reason = nullptr;
    if (!has_room()) {
        reason = "no room";
    } else if (run_shell(command) != 0) {
        reason = "command failed";
    }
    if (reason != nullptr) {
        log_err(function, __LINE__, "%s not changed, %s: %s", HOSTS_FILE, reason, command);
    }
}

// The entry whose value is domain, of those before the first unused one.
const kv_entry* find_domain(std::span<const kv_entry> table, const char* domain) {
    for (const kv_entry& entry : table) {
        if (!entry.name) {
            break;
        }
        if (entry.value && strcmp(entry.value.get(), domain) == 0) {
            return &entry;
        }
    }
    return nullptr;
}

void replace_address(const char* old_ip, const char* ip, const char* domain) {
    // An address of another length leaves the line as it is: deliberate.
    if (strcmp(old_ip, ip) == 0 || strlen(old_ip) != strlen(ip) || !is_dotted_ipv4(old_ip)) {
        return;
    }
    char command[MAX_REPLACE_COMMAND] = {};
    if (format_text(command, "sed -i 's#.*%s.*#%s %s#' /etc/hosts", old_ip, ip, domain)) {
        change_hosts("checkHostsFile", command);
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, "checkHostsFile", __LINE__, "replace to hosts:%s %s\n",
                ip, domain);
    }
}

void add_address(const char* ip, const char* domain) {
    char command[MAX_COMMAND] = {};
    if (format_text(command, "sed -i '1a%s %s' /etc/hosts", ip, domain)) {
        change_hosts("checkHostsFile", command);
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, "checkHostsFile", __LINE__, "add new to hosts:%s %s\n",
                ip, domain);
    }
}

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view BLANKS = " \t";
    text = text.substr(std::min(text.find_first_not_of(BLANKS), text.size()));
    return text.substr(0, text.find_last_not_of(BLANKS) + 1);  // npos + 1 is 0
}

}  // namespace

void checkHostsFile(const char* domain, const char* ip) {
    if (!is_safe_pair(domain, ip)) {
        return;
    }
    kv_entry table[MAX_ENTRIES] = {};
    if (read_kv_pairs(HOSTS_FILE, ' ', table) != 0 && access(HOSTS_FILE, F_OK) == 0) {
        return;  // what it holds cannot be seen; only a missing file is an empty one
    }
    if (const kv_entry* found = find_domain(table, domain)) {
        replace_address(found->name.get(), ip, domain);
    } else {
        add_address(ip, domain);
    }
    free_kv_table(table);
}

int add_domain_to_hosts(const char* ip, const char* domain) {
    char command[MAX_COMMAND] = {};
    if (is_safe_pair(domain, ip) &&
        format_text(command, "echo %s %s %s >> /etc/hosts", ip, domain, domain)) {
        change_hosts(__func__, command);
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__, "Add domain cmd=%s", command);
    }
    return 0;
}

// Goes by the address alone and removes longer addresses that contain it: deliberate.
int delete_domain_in_hosts(const char* ip, const char* /*domain*/) {
    char command[MAX_COMMAND] = {};
    if (is_safe_address(ip) && format_text(command, "sed -i '/%s/'d /etc/hosts", ip)) {
        change_hosts(__func__, command);
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__, "delete domain cmd=%s", command);
    }
    return 0;
}

server_pin split_server_pin(std::string_view value) {
    server_pin pin;
    const size_t bar = value.find('|');
    if (bar == std::string_view::npos) {
        return pin;
    }
    const std::string_view host = trimmed(value.substr(0, bar));
    const std::string_view address = trimmed(value.substr(bar + 1));
    if (host.size() >= sizeof pin.host || address.size() >= sizeof pin.address) {
        log_err(__func__, __LINE__,
                "pinned server not taken, name of %zu, address of %zu characters", host.size(),
                address.size());
        pin.fits = false;
        return pin;
    }
    set_text(pin.host, host);
    set_text(pin.address, address);
    return pin;
}

bool is_whole(const server_pin& pin) {
    return !is_empty(pin.host) && !is_empty(pin.address);
}
