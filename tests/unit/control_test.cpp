// SPDX-License-Identifier: Apache-2.0
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

}  // namespace
