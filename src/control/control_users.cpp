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
constexpr time_t REPORT_INTERVAL = 60;      // seconds
constexpr size_t ANSWER_PART = 8192;        // the kernel makes none longer than it is read with
constexpr int LAST_ERROR = 4095;            // of the kernel's
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

void open_diagnosis() {
    diagnosis.reset(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
}

// By the port alone: of an address the kernel names one socket, others can send from it as well.
bool send_question(uint8_t family, const port_owners& of) {
    question text = {};
    text.head.nlmsg_len = sizeof text;
    text.head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    text.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    text.head.nlmsg_seq = of.question;
    text.body.sdiag_family = family;
    text.body.sdiag_protocol = IPPROTO_UDP;
    text.body.idiag_states = ~0U;
    text.body.id.idiag_sport = of.port;
    return send(diagnosis.get(), &text, sizeof text, 0) == static_cast<ssize_t>(sizeof text);
}

int take_answer(port_owners* owners) {
    char part[ANSWER_PART] = {};
    int code = EAGAIN;
    while (code == EAGAIN) {  // the kernel has the next part ready once one is taken
        const ssize_t length = recv(diagnosis.get(), part, sizeof part, MSG_DONTWAIT | MSG_TRUNC);
        if (length < 0) {
            return errno;
        }
        if (length > static_cast<ssize_t>(sizeof part)) {
            return EMSGSIZE;
        }
        code = read_owners(std::span(part, static_cast<size_t>(length)), owners);
    }
    return code;
}

// Adds the sockets of a family. 0, or what errno tells.
int ask_owners(uint8_t family, port_owners* owners) {
    owners->question = ++last_question;
    const int code = send_question(family, *owners) ? take_answer(owners) : errno;
    if (code != 0) {
        open_diagnosis();  // an answer left half read would stand before the next one
    }
    return code;
}

// The control port's own socket is looked up: a kernel without the diagnosis does not find it.
bool can_tell_owners() {
    open_diagnosis();
    port_owners own = {};
    own.port = htons(CONTROL_PORT);
    const int code = ask_owners(AF_INET, &own);
    errno = code != 0 ? code : ENOENT;
    return code == 0 && own.others > 0;
}

bool is_admitted(const sockaddr_in& sender) {
    // Nobody has business there, and a socket that shared it would be taken for the daemon's.
    if (sender.sin_port == htons(CONTROL_PORT)) {
        return false;
    }
    port_owners owners = {};
    owners.port = sender.sin_port;
    owners.users = std::span(admitted, admitted_count);
    if (ask_owners(AF_INET, &owners) != 0) {
        return false;
    }
    const int code = ask_owners(AF_INET6, &owners);    // which send from IPv4 addresses as well
    const bool is_told = code == 0 || code == ENOENT;  // the kernel knows no such sockets
    return is_told && owners.admitted > 0 && owners.others == 0;
}

// One message of an answer, its header read and its length within the part.
int read_message(const nlmsghdr& head, const char* body, port_owners* owners) {
    const size_t length = head.nlmsg_len - sizeof head;
    if (head.nlmsg_type == NLMSG_DONE || head.nlmsg_type == NLMSG_ERROR) {
        int code = -EBADMSG;
        if (length >= sizeof code) {
            memcpy(&code, body, sizeof code);
        }
        const bool is_end = code == 0 && head.nlmsg_type == NLMSG_DONE;
        return is_end || (code < 0 && code >= -LAST_ERROR) ? -code : EBADMSG;
    }
    inet_diag_msg about = {};
    const bool is_whole = (head.nlmsg_flags & NLM_F_DUMP_INTR) == 0 && length >= sizeof about;
    if (head.nlmsg_type != SOCK_DIAG_BY_FAMILY || !is_whole) {
        return EBADMSG;
    }
    memcpy(&about, body, sizeof about);
    if (about.id.idiag_sport == owners->port) {  // whatever the kernel makes of the question
        const auto end = owners->users.end();
        const bool is_ours = std::find(owners->users.begin(), end, about.idiag_uid) != end;
        (is_ours ? owners->admitted : owners->others)++;
    }
    return EAGAIN;
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

int read_owners(std::span<const char> part, port_owners* owners) {
    while (!part.empty()) {
        nlmsghdr head = {};
        if (part.size() < sizeof head) {
            return EBADMSG;
        }
        memcpy(&head, part.data(), sizeof head);
        if (head.nlmsg_len < sizeof head || head.nlmsg_len > part.size()) {
            return EBADMSG;
        }
        const bool is_answer = head.nlmsg_seq == owners->question;
        const int code = is_answer ? read_message(head, part.data() + sizeof head, owners) : EAGAIN;
        if (code != EAGAIN) {
            return code;
        }
        part = part.subspan(std::min<size_t>(NLMSG_ALIGN(head.nlmsg_len), part.size()));
    }
    return EAGAIN;
}
