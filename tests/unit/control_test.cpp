// SPDX-License-Identifier: Apache-2.0
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>

#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include "control/control_users.h"
#include "log/tb_log.h"
#include "scratch.h"

namespace {

using users = std::vector<uid_t>;

class control_files : public scratch {};

TEST_F(control_files, users_that_may_command_by_name_or_number) {
    log_set_output(LOG_TO_NONE);
    const std::string passwd = in("passwd");
    write_file(passwd,
               "root:x:0:0::/root:/bin/sh\n\nweb:x:33:33\nbroken\nempty::\nminus:x:-1:0\n"
               "none:x:4294967295:0\nweb2:x:34\n1000:x:5:5\nend:x:7");
    const struct {
        const char* list;
        users expected;
    } rows[] = {
        {"root", {0}},
        {"0", {0}},
        {"web,root", {33, 0}},
        {" web ,\troot ,", {33, 0}},
        {"web2", {34}},
        {"end", {7}},
        {"4294967294", {4294967294}},
        {"1000", {1000}},  // a number is no name
        {"", {}},
        {",", {}},
        {"we", {}},
        {"web:x", {}},
        {"Root", {}},
        {"ro ot", {}},
        {"broken,empty,minus,none,x", {}},
        {"-1,+0,0x0,1e1,4294967295,4294967296,00000000000,99999999999999999999", {}},
        {"nobody-known,web", {33}},
        {"1;2", {}},
    };
    for (const auto& row : rows) {
        uid_t found[4] = {};
        const size_t count = parse_users(row.list, passwd.c_str(), found);
        EXPECT_EQ(users(found, found + count), row.expected) << row.list;
    }
    uid_t found[2] = {};
    EXPECT_EQ(parse_users("1,2,0", passwd.c_str(), found), 2U) << "what is too many is left out";
    EXPECT_EQ(parse_users("root", in("missing").c_str(), found), 0U);
    EXPECT_EQ(parse_users("7", in("missing").c_str(), found), 1U);
}

constexpr in_port_t PORT = 5555;
constexpr uint32_t QUESTION = 7;

std::string raw(const void* bytes, size_t size) {
    return {static_cast<const char*>(bytes), size};
}

std::string message(int type, const std::string& body, uint32_t number = QUESTION, int flags = 0) {
    nlmsghdr head = {};
    head.nlmsg_len = static_cast<uint32_t>(sizeof head + body.size());
    head.nlmsg_type = static_cast<uint16_t>(type);
    head.nlmsg_flags = static_cast<uint16_t>(flags);
    head.nlmsg_seq = number;
    return raw(&head, sizeof head) + body;
}

std::string about(uid_t owner, in_port_t port = PORT) {
    inet_diag_msg body = {};
    body.id.idiag_sport = port;
    body.idiag_uid = owner;
    return raw(&body, sizeof body);
}

std::string one(uid_t owner, in_port_t port = PORT) {
    return message(SOCK_DIAG_BY_FAMILY, about(owner, port));
}

std::string with_length(std::string text, uint32_t length) {
    return text.replace(0, sizeof length, raw(&length, sizeof length));
}

TEST(control_owners, every_socket_of_the_port_counts_and_nothing_broken_is_believed) {
    const int fine = 0;
    const int failure = -EBUSY;
    const int lowest = INT_MIN;
    const std::string end = message(NLMSG_DONE, raw(&fine, sizeof fine));
    const std::string root = one(0);
    const std::string failed = raw(&failure, sizeof failure);
    const struct {
        const char* name;
        std::string part;
        int code;
        size_t admitted;
        size_t others;
    } rows[] = {
        {"one", root + end, 0, 1, 0},
        {"another user's beside it", root + one(12) + end, 0, 1, 1},
        {"another user's first", one(12) + root + one(33) + end, 0, 2, 1},
        {"none", end, 0, 0, 0},
        {"other ports", one(0, PORT + 1) + one(12, 0) + end, 0, 0, 0},
        {"more follows", root, EAGAIN, 1, 0},
        {"nothing", "", EAGAIN, 0, 0},
        {"attributes, padded",
         message(SOCK_DIAG_BY_FAMILY, about(0) + "12345") + std::string(3, 0) + one(12) + end, 0, 1,
         1},
        {"unpadded at the end", message(SOCK_DIAG_BY_FAMILY, about(0) + "12345"), EAGAIN, 1, 0},
        {"of an older question", message(SOCK_DIAG_BY_FAMILY, about(12), 6) + root + end, 0, 1, 0},
        {"the older one's end", message(NLMSG_DONE, failed, 6), EAGAIN, 0, 0},
        {"cut header", root + end.substr(0, 15), EBADMSG, 1, 0},
        {"cut body", root.substr(0, root.size() - 1), EBADMSG, 0, 0},
        {"length past the part", with_length(root, 0xFFFFFFFF), EBADMSG, 0, 0},
        {"length of none", with_length(root, 0) + end, EBADMSG, 0, 0},
        {"length below the header", with_length(root, 15) + end, EBADMSG, 0, 0},
        {"short body", message(SOCK_DIAG_BY_FAMILY, about(0).substr(1)) + end, EBADMSG, 0, 0},
        {"another type", message(99, about(0)) + end, EBADMSG, 0, 0},
        {"changed meanwhile", message(SOCK_DIAG_BY_FAMILY, about(0), QUESTION, NLM_F_DUMP_INTR),
         EBADMSG, 0, 0},
        {"failed", root + message(NLMSG_ERROR, failed), EBUSY, 1, 0},
        {"failed at the end", root + message(NLMSG_DONE, failed), EBUSY, 1, 0},
        {"error of 0", message(NLMSG_ERROR, raw(&fine, sizeof fine)), EBADMSG, 0, 0},
        {"error of no number", message(NLMSG_ERROR, raw(&lowest, sizeof lowest)), EBADMSG, 0, 0},
        {"end without a code", root + message(NLMSG_DONE, ""), EBADMSG, 1, 0},
    };
    const uid_t admitted[] = {33, 0};
    for (const auto& row : rows) {
        const std::vector<char> part(row.part.begin(), row.part.end());  // its end is watched
        port_owners owners = {PORT, QUESTION, admitted, 0, 0};
        EXPECT_EQ(read_owners(part, &owners), row.code) << row.name;
        EXPECT_EQ(owners.admitted, row.admitted) << row.name;
        EXPECT_EQ(owners.others, row.others) << row.name;
    }
}

}  // namespace
