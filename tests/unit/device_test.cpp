// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "base/handles.h"
#include "base/text.h"
#include "device/identity.h"
#include "device/ipc.h"
#include "device/kv.h"
#include "device/process.h"
#include "device/url.h"

namespace {

class device_files : public testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(mkdtemp(folder), nullptr); }
    void TearDown() override { std::filesystem::remove_all(folder); }
    [[nodiscard]] std::string file(const char* name) const {
        return std::string(folder) + "/" + name;
    }
    char folder[32] = "/tmp/device_test.XXXXXX";
};

TEST(device_id, form) {
    const std::string good = "12345678-1234-1234-1234-123456789012";
    EXPECT_EQ(is_bad_device_id(good.c_str()), 0);
    EXPECT_EQ(is_bad_device_id(good.substr(0, 32).c_str()), 0);
    EXPECT_EQ(is_bad_device_id((good + "\xff").c_str()), 0);  // beyond what is judged
    EXPECT_EQ(is_bad_device_id(nullptr), 1);
    EXPECT_EQ(is_bad_device_id(good.substr(0, 31).c_str()), 1);
    for (const size_t at : {8U, 13U, 18U, 23U}) {
        std::string bad = good;
        std::swap(bad[at], bad[at + 1]);
        EXPECT_EQ(is_bad_device_id(bad.c_str()), 1) << bad;
    }
    std::string foreign = good;
    foreign[35] = '\x80';
    EXPECT_EQ(is_bad_device_id(foreign.c_str()), 1);
}

TEST(kv_text, trim_and_split) {
    const char* const rows[][2] = {
        {" \tword \n", "word"},   {"   ", ""},       {"", ""}, {" a", "a"},
        {"a \t b\r\n", "a \t b"}, {"\n\va", "\n\va"}};
    for (const auto& [before, after] : rows) {
        char text[16] = {};
        set_text(text, before);
        EXPECT_STREQ(trim_text(text), after);
    }
    char line[] = " key one = a=b \n";
    char* key = nullptr;
    char* value = nullptr;
    ASSERT_EQ(split_kv(line, '=', &key, &value), 0);
    EXPECT_STREQ(key, "key one");
    EXPECT_STREQ(value, "a=b");
    EXPECT_EQ(split_kv(value, '#', &key, &value), -1);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(value, nullptr);
}

TEST_F(device_files, kv_tables) {
    const std::string path = file("kv");
    std::ofstream(path) << "noise\nB=1\nAA=2\nA=3\nA=4\nC=\n";
    kv_entry named[] = {
        {heap_text("A"), nullptr}, {heap_text("C"), nullptr}, {heap_text("D"), nullptr}};
    ASSERT_EQ(read_kv_file(path.c_str(), '=', named), 0);
    EXPECT_STREQ(named[0].value.get(), "3");
    EXPECT_STREQ(named[1].value.get(), "");
    EXPECT_EQ(named[2].value, nullptr);

    kv_entry pairs[3] = {};
    ASSERT_EQ(read_kv_pairs(path.c_str(), '=', pairs), 0);
    EXPECT_STREQ(pairs[0].name.get(), "B");
    EXPECT_STREQ(pairs[2].name.get(), "A");
    EXPECT_STREQ(pairs[2].value.get(), "3");
    free_kv_table(pairs);
    EXPECT_EQ(pairs[0].name, nullptr);
    EXPECT_EQ(pairs[2].value, nullptr);

    EXPECT_EQ(read_kv_file("/nonexistent", '=', named), -1);
    EXPECT_EQ(read_kv_pairs("/nonexistent", '=', pairs), -1);
}

struct url_row {
    const char* url;
    const char* host;
    const char* path;
    int port;
};

TEST(url, split) {
    const url_row rows[] = {
        {"https://files.example:8443/a/b?c=d:1", "files.example", "/a/b?c=d:1", 8443},
        {"http://a/x", "a", "/x", 80},
        {"ftp://a/x", "a", "/x", 21},
        {"ftp://a:2121/x", "a", "/x", 2121},
        {"a.example", "a.example", "", 443},
        {"HTTP://a/x", "HTTP", "//a/x", 0},  // no scheme, and a colon in the "host"
        {"a:port/x", "a", "/x", 0},
        {"https:///x", "", "/x", 443},
        {"0123456789abcdefghij/0123456789abcdefghijk", "0123456789abcdefghi",
         "/0123456789abcdefghijk", 443},
        {"", "", "", 7},
        {nullptr, "", "", 7},
    };
    for (const url_row& row : rows) {
        char host[20] = "old";
        char path[64] = "old";
        int port = 7;
        split_url(row.url, host, path, &port, sizeof host, sizeof path);
        EXPECT_STREQ(host, row.host);
        EXPECT_STREQ(path, row.path);
        EXPECT_EQ(port, row.port) << (row.url == nullptr ? "null" : row.url);
    }
}

TEST_F(device_files, datagrams_carry_their_senders_path) {
    const std::string here = file("here");
    const std::string there = file("there");
    std::ofstream(here) << "left by an earlier run";
    const unique_fd receiver(bindUnixSocket(here.c_str()));
    const unique_fd sender(bindUnixSocket(there.c_str()));
    ASSERT_TRUE(receiver);
    ASSERT_TRUE(sender);
    EXPECT_NE(fcntl(receiver.get(), F_GETFD) & FD_CLOEXEC, 0);

    ASSERT_EQ(sendUnixSocket(sender.get(), here.c_str(), "12345", 5), 5);
    char text[4] = {};
    char from[UNIX_PATH_SIZE] = {};
    EXPECT_EQ(recvUnixSocket(receiver.get(), text, 3, &from), 3);
    EXPECT_STREQ(text, "123");
    EXPECT_EQ(from, there);

    EXPECT_EQ(sendUnixSocket(sender.get(), "", "x", 1), -1);
    EXPECT_EQ(sendUnixSocket(sender.get(), nullptr, "x", 1), -1);
    EXPECT_EQ(sendUnixSocket(sender.get(), file("nobody").c_str(), "x", 1), -1);
    EXPECT_EQ(bindUnixSocket(file("no/folder").c_str()), -2);
}

TEST_F(device_files, a_receiver_that_does_not_read_holds_nobody_up) {
    const unique_fd receiver(bindUnixSocket(file("deaf").c_str()));
    const unique_fd sender(bindUnixSocket(file("sender").c_str()));
    ssize_t sent = 1;
    for (int i = 0; i < 10000 && sent == 1; i++) {
        sent = sendUnixSocket(sender.get(), file("deaf").c_str(), "x", 1);
    }
    EXPECT_EQ(sent, -1);
}

TEST_F(device_files, long_socket_paths_are_cut) {
    const std::string longest = file("") + std::string(107 - file("").size(), 's');
    const unique_fd receiver(bindUnixSocket((longest + "more").c_str()));
    ASSERT_TRUE(receiver);
    EXPECT_EQ(access(longest.c_str(), F_OK), 0);
    EXPECT_EQ(sendUnixSocket(receiver.get(), longest.c_str(), "x", 1), 1);
}

TEST(process, is_found_by_a_part_of_its_path) {
    const std::string own = std::filesystem::read_symlink("/proc/self/exe").filename();
    char pid[PID_TEXT_SIZE] = {};
    ASSERT_EQ(find_process_by_exe(own.c_str(), &pid), 0);
    const std::string link = std::string("/proc/") + pid + "/exe";
    EXPECT_NE(std::filesystem::read_symlink(link).string().find(own), std::string::npos);
    EXPECT_EQ(find_process_by_exe("no such program", &pid), -1);
    EXPECT_EQ(find_process_by_exe("", &pid), -1);
}

}  // namespace
