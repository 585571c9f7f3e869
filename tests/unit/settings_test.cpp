// SPDX-License-Identifier: Apache-2.0
#include "config/settings.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "base/text.h"
#include "deployment.h"
#include "log/tb_log.h"
#include "scratch.h"

namespace {

class settings_files : public scratch {
  protected:
    settings_files() { log_init(); }

    // The settings that text gives, and in log what was logged on the way.
    settings load(const std::string& text) {
        write_file(own, text);
        settings config = {};
        testing::internal::CaptureStdout();
        load_settings(&config, own.c_str(), agent.c_str());
        log = testing::internal::GetCapturedStdout();
        return config;
    }

    const std::string own = in("own.ini");
    const std::string agent = in("agent.ini");
    std::string log;
};

TEST_F(settings_files, without_a_file_the_defaults_hold) {
    const settings config = load("");
    EXPECT_STREQ(config.cloudserver, "");
    EXPECT_STREQ(config.quorvel_service, "off");
    EXPECT_STREQ(config.dns1, "205.251.193.226");
    EXPECT_STREQ(config.dns2, "168.95.1.1");
    EXPECT_STREQ(config.dns3, "8.8.8.8");
    EXPECT_EQ(config.quorvel_sipuser, nullptr);
    EXPECT_EQ(config.loglevel, 1);
}

TEST_F(settings_files, a_broken_line_does_not_switch_verification_off) {
    const std::string setting = " tls_ca_file =/ca.pem\n";
    for (const char* before : {"[Config]\nno key\n", "[Config\n", "Config]\n", "[config]\n",
                               "[Config]\nactive_token=abc+\n"}) {
        EXPECT_STRNE(load(before + setting).tls_ca_file, "") << before;
    }
    EXPECT_STRNE(load("[Config]\nno key" + std::string(600, '\0') + setting).tls_ca_file, "")
        << "a page that a power cut left empty";
    EXPECT_STRNE(load("[Config]\ntls_ca_file /ca.pem\n").tls_ca_file, "");
    EXPECT_STRNE(load("[Config]\ntls_ca_file\n").tls_ca_file, "");
    EXPECT_STRNE(load("[Config]\nno key\ncontrol_users=root\n").control_users, "root");
    EXPECT_STRNE(load("[Config]\nno key\ncontrol_users=root\n").control_users, "");
    for (const char* other : {"no key\n", "#tls_ca_file=/ca.pem\nno key\n", "no_tls_ca_file=/x\n",
                              "tls_ca_file_of_old=/x\n"}) {
        EXPECT_STREQ(load(std::string("[Config]\n") + other).tls_ca_file, "") << other;
    }
}

TEST_F(settings_files, numbers) {
    const struct {
        const char* text;
        int loglevel;
        int checkcycle;
    } rows[] = {
        {"[Config]\nloglevel=abc\n[Update]\ncheckcycle=10\n", 0, 600},
        {"[Config]\nloglevel=\n[Update]\ncheckcycle=\n", 1, 43200},
        {"[Config]\nloglevel=5x\n[Update]\ncheckcycle=601\n", 5, 601},
        {"[Config]\ncheckcycle=700\nloglevel=-1\n", -1, 43200},
        {"[Update]\ncheckcycle=99999999999\n", 1, 2147483647},
    };
    for (const auto& row : rows) {
        const settings config = load(row.text);
        EXPECT_EQ(config.loglevel, row.loglevel) << row.text;
        EXPECT_EQ(config.checkcycle, row.checkcycle) << row.text;
    }
}

TEST_F(settings_files, a_text_that_does_not_fit_counts_as_not_there) {
    const std::string host(63, 'h');
    const settings config =
        load("[Config]\ntcp_mss=1234567890123456\ndns1=111.111.111.1111\napi_server=" + host +
             "\naccounts_server=" + host + "h\nquorvel_token=" + host +
             "t\nquorvel_sipuser=" + std::string(256, 's') +
             "\nquorvel_sipserver=" + std::string(255, 's') + "\ntls_ca_file=/" +
             std::string(127, 'f') + "\nconn_timeout=" + std::string(40, '0') + "7\n");
    EXPECT_STREQ(config.tcp_mss, "");
    EXPECT_STREQ(config.dns1, "205.251.193.226");
    EXPECT_EQ(config.api_server, host);
    EXPECT_STREQ(config.accounts_server, PLUGINMGR_ACCOUNTS_SERVER);
    EXPECT_STREQ(config.quorvel_token, "");
    EXPECT_EQ(config.quorvel_sipuser, nullptr);
    EXPECT_EQ(strlen(config.quorvel_sipserver.get()), 255U);
    EXPECT_STREQ(config.tls_ca_file, "/unreadable setting") << "and no other file";
    EXPECT_EQ(config.conn_timeout, 7);
    EXPECT_NE(log.find("tcp_mss in " + own + " has 16 characters, at most 15, not taken\n"),
              std::string::npos);
}

TEST_F(settings_files, a_pushed_text_that_does_not_fit_is_not_there) {
    write_file(own, "[Config]\napi_server=" + std::string(64, 'h') + "\ncloudserver=on\n");
    settings config = {};
    testing::internal::CaptureStdout();
    bool taken = false;
    EXPECT_EQ(read_update_config(&config, own.c_str(), &taken), 0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("api_server in "), std::string::npos);
    EXPECT_STREQ(config.api_server, "");
    EXPECT_STREQ(config.cloudserver, "on");
}

TEST_F(settings_files, agent_file_empty_values_and_secrets) {
    write_file(agent, "[Config]\nUMS_SERVER=from.agent\n");
    const settings config = load(
        "[Config]\nUMS_SERVER=from.own\nquorvel_service=\nquorvel_token=confidential\n"
        "quorvel_sipuser=me\nquorvel_sipserver=\n"
        "[Update]\ncheckcycle=10\n");
    EXPECT_STREQ(config.UMS_SERVER, "from.agent");
    EXPECT_STREQ(config.quorvel_service, "off");
    ASSERT_NE(config.quorvel_sipuser, nullptr);
    EXPECT_STREQ(config.quorvel_sipuser.get(), "me");
    EXPECT_EQ(config.quorvel_sipserver, nullptr);

    EXPECT_EQ(log.find("confidential"), std::string::npos);
    EXPECT_EQ(log.find("sipuser"), std::string::npos);
    EXPECT_NE(log.find(" quorvel_token length 12\n"), std::string::npos);
    const size_t minimum = log.find(" checkcycle minimum 600 seconds\n");
    ASSERT_NE(minimum, std::string::npos);
    EXPECT_LT(minimum, log.find(" checkcycle=600\n"));
}

TEST_F(settings_files, pushed_ones_count_only_when_nobody_else_can_have_written_them) {
    const std::string text = "[Config]\napi_server=evil\n[Update]\ncheckcycle=7\n";
    const std::string other = in("other");
    const struct {
        const char* what;
        mode_t mode;
        bool by_link, two_names, of_another, taken;
    } rows[] = {{"its owner's", 0644, false, false, false, true},
                {"read-only", 0400, false, false, false, true},
                {"writable by a group", 0664, false, false, false, false},
                {"writable by all", 0602, false, false, false, false},
                {"by a link", 0644, true, false, false, false},
                {"with a second name", 0644, false, true, false, false},
                {"somebody else's", 0644, false, false, true, false}};
    for (const auto& row : rows) {
        if (row.of_another && geteuid() != 0) {
            continue;  // nobody else to be had
        }
        write_file(own, text);
        ASSERT_EQ(chmod(own.c_str(), row.mode), 0);
        ASSERT_EQ(row.by_link ? symlink(own.c_str(), other.c_str()) : 0, 0);
        ASSERT_EQ(row.two_names ? link(own.c_str(), other.c_str()) : 0, 0);
        ASSERT_EQ(row.of_another ? chown(own.c_str(), 1, 1) : 0, 0);
        settings config = {};
        bool taken = !row.taken;
        testing::internal::CaptureStdout();
        EXPECT_EQ(read_update_config(&config, (row.by_link ? other : own).c_str(), &taken), 0);
        log = testing::internal::GetCapturedStdout();
        EXPECT_EQ(taken, row.taken) << row.what;
        EXPECT_STREQ(config.api_server, row.taken ? "evil" : "") << row.what;
        EXPECT_EQ(config.checkcycle, row.taken ? 7 : 0) << row.what;
        EXPECT_EQ(log.find(" is not read: ") == std::string::npos, row.taken) << row.what;
        (void)unlink(other.c_str());
        ASSERT_EQ(unlink(own.c_str()), 0);
    }
}

TEST(run_mode, is_judged_by_prefix) {
    set_text(pluginmgr_config.cloudserver, "ums,x");
    EXPECT_TRUE(mode_is("ums"));
    EXPECT_FALSE(mode_is("on"));
    set_text(pluginmgr_config.cloudserver, "");
}

}  // namespace
