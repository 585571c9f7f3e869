// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <unistd.h>

#include "base/handles.h"
#include "base/text.h"
#include "device/hosts.h"
#include "device/identity.h"
#include "device/ipc.h"
#include "device/kv.h"
#include "device/process.h"
#include "device/program.h"
#include "device/url.h"
#include "log/tb_log.h"
#include "scratch.h"

namespace {

using device_files = scratch;

TEST(device_id, form) {
    for (const char* good :
         {"12345678-1234-1234-1234-123456789012", "12345678-1234-1234-1234-12345678",
          "12345678-1234-1234-1234-123456789012\xff"}) {  // beyond what is judged
        EXPECT_EQ(is_bad_device_id(good), 0) << good;
    }
    for (const char* bad :
         {"12345678-1234-1234-1234-1234567", "123456781-234-1234-1234-123456789012",
          "12345678-12341-234-1234-123456789012", "12345678-1234-12341-234-123456789012",
          "12345678-1234-1234-12341-23456789012", "12345678-1234-1234-1234-12345678901\x80"}) {
        EXPECT_EQ(is_bad_device_id(bad), 1) << bad;
    }
    EXPECT_EQ(is_bad_device_id(nullptr), 1);
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
    EXPECT_TRUE(key == nullptr && value == nullptr);
}

TEST(pinned_server, halves_are_trimmed_and_whole) {
    const std::string host(63, 'h');
    const struct {
        std::string text;
        std::string host;
        const char* address;
        bool fits = true;
    } rows[] = {
        {"x.lan|10.0.0.1", "x.lan", "10.0.0.1"},
        {" x.lan\t | 10.0.0.1 ", "x.lan", "10.0.0.1"},
        {"a b|1|2", "a b", "1|2"},
        {"no bar", "", ""},
        {" | ", "", ""},
        {" " + host + "|255.255.255.255 ", host, "255.255.255.255"},
        {host + "h|10.0.0.1", "", "", false},
        {"x.lan|192.168.100.2001", "", "", false},
    };
    log_set_output(LOG_TO_NONE);
    for (const auto& row : rows) {
        const server_pin pin = split_server_pin(row.text);
        EXPECT_EQ(pin.host, row.host) << row.text;
        EXPECT_STREQ(pin.address, row.address) << row.text;
        EXPECT_EQ(pin.fits, row.fits) << row.text;
    }
}

TEST_F(device_files, kv_tables) {
    const std::string path = in("kv");
    write_file(path, "noise\nB=1\nAA=2\nA=3\nA=4\nC=\n");
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
    EXPECT_TRUE(pairs[0].name == nullptr && pairs[2].value == nullptr);
    EXPECT_EQ(read_kv_file("/nonexistent", '=', named), -1);
    EXPECT_EQ(read_kv_pairs("/nonexistent", '=', pairs), -1);
}

TEST(url, split) {
    const struct {
        const char* url;
        const char* host;
        const char* path;
        int port;
    } rows[] = {
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
    for (const auto& row : rows) {
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
    const std::string here = in("here");
    const std::string there = in("there");
    write_file(here, "left by an earlier run");
    const unique_fd receiver(bindUnixSocket(here.c_str()));
    const unique_fd sender(bindUnixSocket(there.c_str()));
    ASSERT_TRUE(receiver && sender);
    EXPECT_NE(fcntl(receiver.get(), F_GETFD) & FD_CLOEXEC, 0);

    ASSERT_EQ(sendUnixSocket(sender.get(), here.c_str(), "12345", 5), 5);
    char text[4] = {};
    char from[UNIX_PATH_SIZE] = {};
    EXPECT_EQ(recvUnixSocket(receiver.get(), text, 3, &from), 3);
    EXPECT_STREQ(text, "123");
    EXPECT_EQ(from, there);

    EXPECT_EQ(sendUnixSocket(sender.get(), "", "x", 1), -1);
    EXPECT_EQ(sendUnixSocket(sender.get(), nullptr, "x", 1), -1);
    EXPECT_EQ(sendUnixSocket(sender.get(), in("nobody").c_str(), "x", 1), -1);
    EXPECT_EQ(bindUnixSocket(in("no/folder").c_str()), -2);

    const std::string longest = in("") + std::string(UNIX_PATH_SIZE - 1 - in("").size(), 's');
    const unique_fd cut(bindUnixSocket((longest + "more").c_str()));
    EXPECT_EQ(access(longest.c_str(), F_OK), 0);
    EXPECT_EQ(sendUnixSocket(sender.get(), longest.c_str(), "x", 1), 1);

    ssize_t sent = 1;
    for (int i = 0; i < 10000 && sent == 1; i++) {
        sent = sendUnixSocket(sender.get(), here.c_str(), "x", 1);
    }
    EXPECT_EQ(sent, -1) << "a receiver that does not read holds nobody up";
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

// All but the last would end processes, and take two seconds.
TEST(program, of_another_name_is_not_touched) {
    for (const char* name : {"../../tmp/evil", "/bin/true", "a/b --ums", ";x", "-x", " x", ""}) {
        EXPECT_EQ(act_on_program(name, "restart"), -1) << name;
    }
    EXPECT_EQ(act_on_program("cloudae --ums=a/b", "look"), 0) << "arguments are the daemon's own";
}

}  // namespace
