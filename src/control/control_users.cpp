// SPDX-License-Identifier: Apache-2.0
#include "control/control_users.h"

#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>

#include "base/file.h"
#include "base/handles.h"
#include "base/text.h"
#include "control/boa_protocol.h"
#include "log/tb_log.h"

namespace {

constexpr const char* PASSWD_FILE = "/etc/passwd";
constexpr time_t REPORT_INTERVAL = 60;  // seconds
constexpr uint32_t LOOPBACK_INTERFACE = 1;
constexpr uint64_t LAST_USER = 0xFFFFFFFE;  // the number above it means none
constexpr size_t LONGEST_NUMBER = 10;
constexpr std::string_view DIGITS = "0123456789";
constexpr std::string_view BLANKS = " \t";

bool is_limited = false;
uid_t admitted[MAX_CONTROL_USERS] = {};
size_t admitted_count = 0;
unique_fd diagnosis;
uint32_t last_question = 0;

unsigned ignored = 0;  // since the last line
time_t last_report = 0;

// Takes the text before the separator off the front.
std::string_view take_part(std::string_view* text, char separator) {
    const size_t end = std::min(text->find(separator), text->size());
    const std::string_view part = text->substr(0, end);
    text->remove_prefix(std::min(end + 1, text->size()));
    return part;
}

std::string_view trimmed(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(BLANKS), text.size()));
    return text.substr(0, text.find_last_not_of(BLANKS) + 1);
}

std::optional<uid_t> to_user(std::string_view digits) {
    if (digits.empty() || digits.size() > LONGEST_NUMBER ||
        digits.find_first_not_of(DIGITS) != std::string_view::npos) {
        return std::nullopt;
    }
    uint64_t value = 0;
    for (const char digit : digits) {
        value = value * 10 + static_cast<uint64_t>(digit - '0');
    }
    return value <= LAST_USER ? std::optional(static_cast<uid_t>(value)) : std::nullopt;
}

// Not getpwnam(), which loads whatever the system's name service consists of.
std::optional<uid_t> find_user(std::string_view passwd, std::string_view name) {
    while (!passwd.empty()) {
        std::string_view line = take_part(&passwd, '\n');
        if (take_part(&line, ':') == name) {
            (void)take_part(&line, ':');  // the password
            return to_user(take_part(&line, ':'));
        }
    }
    return std::nullopt;
}

struct question {
    nlmsghdr head;
    inet_diag_req_v2 body;
};

bool send_question(const sockaddr_in& of) {
    question text = {};
    text.head.nlmsg_len = sizeof text;
    text.head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    text.head.nlmsg_flags = NLM_F_REQUEST;
    text.head.nlmsg_seq = ++last_question;
    text.body.sdiag_family = AF_INET;
    text.body.sdiag_protocol = IPPROTO_UDP;
    text.body.idiag_states = ~0U;
    // As of a datagram that comes in there from the control port: so the kernel means it for UDP.
    inet_diag_sockid& place = text.body.id;
    place.idiag_dport = of.sin_port;
    place.idiag_dst[0] = of.sin_addr.s_addr;
    place.idiag_sport = htons(CONTROL_PORT);
    place.idiag_src[0] = htonl(INADDR_LOOPBACK);
    place.idiag_if = LOOPBACK_INTERFACE;
    place.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
    place.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
    return send(diagnosis.get(), &text, sizeof text, 0) == static_cast<ssize_t>(sizeof text);
}

// The owner of the UDP socket at a local address, or none, with errno.
std::optional<uid_t> owner_of(const sockaddr_in& place) {
    struct {
        nlmsghdr head;
        inet_diag_msg body;
        char more[256];
    } answer = {};
    if (!send_question(place)) {
        return std::nullopt;
    }
    do {  // the kernel has answered by now; what is older was not taken
        const ssize_t length = recv(diagnosis.get(), &answer, sizeof answer, MSG_DONTWAIT);
        if (length < 0) {
            return std::nullopt;
        }
        if (length < static_cast<ssize_t>(sizeof answer.head + sizeof answer.body) ||
            answer.head.nlmsg_type != SOCK_DIAG_BY_FAMILY) {
            errno = ENOENT;
            return std::nullopt;
        }
    } while (answer.head.nlmsg_seq != last_question);
    errno = ENOENT;
    return answer.body.id.idiag_sport == place.sin_port ? std::optional(answer.body.idiag_uid)
                                                        : std::nullopt;
}

// The control port's own socket is looked up: a kernel without the diagnosis does not find it.
bool can_tell_owners() {
    sockaddr_in own = {};
    own.sin_port = htons(CONTROL_PORT);
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    diagnosis.reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    return diagnosis && owner_of(own).has_value();
}

bool is_admitted(const sockaddr_in& sender) {
    // Nobody has business there, and a socket that shares it would be taken for the daemon's.
    if (sender.sin_port == htons(CONTROL_PORT)) {
        return false;
    }
    const std::optional<uid_t> owner = owner_of(sender);
    uid_t* const end = admitted + admitted_count;
    return owner && std::find(admitted, end, *owner) != end;
}

}  // namespace

void load_control_users(const char* setting) {
    is_limited = !is_empty(setting);
    if (!is_limited) {
        return;
    }
    admitted_count = parse_users(setting, PASSWD_FILE, admitted);
    if (!can_tell_owners()) {
        log_err(__func__, __LINE__, "control_users can't be checked, nobody may command: %s",
                strerror(errno));
        admitted_count = 0;
    }
}

bool may_command(const sockaddr_in& sender) {
    if (!is_limited || (admitted_count > 0 && is_admitted(sender))) {
        return true;
    }
    ignored++;
    report_ignored();
    return false;
}

void report_ignored() {
    const time_t now = time(nullptr);
    if (ignored == 0 || (now >= last_report && now < last_report + REPORT_INTERVAL)) {
        return;
    }
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__,
            "%u datagrams ignored, not from one of control_users", ignored);
    ignored = 0;
    last_report = now;
}

size_t parse_users(std::string_view list, const char* passwd_file, std::span<uid_t> users) {
    std::string passwd;
    (void)read_file(passwd_file, SETTINGS_FILE_LIMIT, &passwd);  // without it names are unknown
    size_t count = 0;
    while (!list.empty()) {
        const std::string_view word = trimmed(take_part(&list, ','));
        if (word.empty()) {
            continue;
        }
        const bool is_number = word.find_first_not_of(DIGITS) == std::string_view::npos;
        const auto user = is_number ? to_user(word) : find_user(passwd, word);
        if (!user || count == users.size()) {
            log_err(__func__, __LINE__, "%.*s of control_users may not command: %s",
                    static_cast<int>(word.size()), word.data(),
                    user ? "one user too many" : "unknown user");
            continue;
        }
        users[count++] = *user;
    }
    return count;
}
