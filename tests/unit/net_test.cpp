// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "base/handles.h"
#include "base/result.h"
#include "base/text.h"
#include "config/settings.h"
#include "log/tb_log.h"
#include "net/socket_io.h"
#include "net/transport.h"
#include "tls_server.h"

namespace {

class net : public testing::Test {
  protected:
    void SetUp() override {
        log_set_output(LOG_TO_NONE);
        pluginmgr_config.conn_timeout = 2;
        set_text(pluginmgr_config.tcp_mss, "");
    }
};

struct socket_pair {
    explicit socket_pair(int type) {
        int ends[2] = {};
        EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends), 0);
        near.reset(ends[0]);
        far.reset(ends[1]);
    }
    unique_fd near;
    unique_fd far;
};

std::string content_of(FILE* file) {
    char text[1024] = {};
    rewind(file);
    return {text, fread(text, 1, sizeof text, file)};
}

using pieces = std::vector<std::string>;  // each is one read

pieces byte_by_byte(const std::string& text, size_t from) {
    pieces all = {text.substr(0, from)};
    for (const char c : text.substr(from)) {
        all.emplace_back(1, c);
    }
    return all;
}

struct receive_row {
    const char* what;
    pieces sent;
    size_t size;        // of the buffer
    std::string saved;  // in the file
    size_t taken = 99;  // pieces, at most
    bool cut = false;   // the peer closes after the pieces; else it must not be waited for
};

void check_receive(const receive_row& r) {
    SCOPED_TRACE(r.what);
    const socket_pair pair(r.sent.size() == 1 ? SOCK_STREAM : SOCK_SEQPACKET);
    size_t taken = 0;
    for (size_t i = 0; i < r.sent.size(); i++) {
        ASSERT_GT(send(pair.far.get(), r.sent[i].data(), r.sent[i].size(), 0), 0);
        taken += i < r.taken ? r.sent[i].size() : 0;
    }
    if (r.cut) {
        shutdown(pair.far.get(), SHUT_WR);
    }
    const file_ptr file(tmpfile());
    // The sanitizers see a byte behind the terminator's place.
    const auto buffer = std::make_unique<char[]>(r.size + 1);
    const long long start = now_ms();
    EXPECT_EQ(recv_http(pair.near.get(), buffer.get(), r.size, 9, file.get()),
              static_cast<int>(taken));
    EXPECT_LT(now_ms() - start, 4000);
    EXPECT_EQ(content_of(file.get()), r.saved);
}

TEST_F(net, receives_until_the_announced_length) {
    const std::string start = "HTTP/1.1 200 OK\r\nContent-Length: ";
    const std::string small = answer_of("body");
    const std::string ys(100, 'y');
    const std::string hundred = answer_of(ys);
    const receive_row rows[] = {
        {"fits exactly", {small}, small.size(), "body"},
        {"one byte too long", {small}, small.size() - 1, "body"},
        {"header and body byte by byte", byte_by_byte(small, start.size()), 100, "body"},
        {"buffer filled by the last read", {hundred}, hundred.size() / 2, ys},
        {"too long, many short reads", byte_by_byte(hundred, 50), 60, ys},
        {"empty body", {answer_of("")}, 100, ""},
        {"header without end fills the buffer", {start + std::string(17, '7')}, 50, ""},
        {"announced but cut off", {start + "9\r\n\r\nabc"}, 100, "", 99, true},
        {"too long and cut off", {start + "999\r\n\r\nabc"}, 43, "abc", 99, true},
        {"nothing", {}, 100, "", 99, true},
        // without a sensible length, complete with the first read
        {"no length", {"HTTP/1.1 200 OK\r\n\r\nab", "cd"}, 100, "ab", 1},
        {"first read too short to tell", {"H", "TTP/1.1 200 OK\r\n\r\n"}, 100, "", 1},
        {"no number", {start + "abc\r\n\r\nxy"}, 100, "xy"},
        {"negative", {start + "-99\r\n\r\nxy"}, 100, "xy"},
        {"just over an int", {start + "2147483647\r\n\r\n"}, 100, ""},
        {"name at the very end", {"HTTP/1.1 200 OK\r\n\r\nContent-Length"}, 100, "Content-Length"},
    };
    for (const receive_row& r : rows) {
        check_receive(r);
    }
}

TEST_F(net, receive_ends_with_the_wait_or_a_redirect) {
    const socket_pair pair(SOCK_STREAM);
    char buffer[100] = {};
    EXPECT_EQ(recv_http(pair.near.get(), buffer, 99, 0, nullptr), 0);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(send_http_str(pair.far.get(), "HTTP/1.1 302 Found\r\nLocation: /x\r\n\r\n"), 0);
    EXPECT_EQ(recv_http(pair.near.get(), buffer, 99, 0, nullptr), GOT_REDIRECT);
    EXPECT_STREQ(buffer, "/x");
    EXPECT_EQ(send_http_str(0, "x"), -1);
}

TEST_F(net, tells_redirects) {
    struct row {
        const char* text;
        int result;
        const char* left = nullptr;  // null: what it was
    };
    const row rows[] = {
        {"HTTP/1.1 302 Found\r\nLocation: /a/b?c\r\nX: y\r\n", 0, "/a/b?c"},
        {"HTTP/1.0 302\r\nLocation:/a\r\n", 0, "/a"},
        {"HTTP/1.1 302 Found\r\nLocation:\r\n", 0, ""},
        {"HTTP/1.1 302 Found\r\n\r\n", 0},
        {"HTTP/1.1 302 Found\r\nLocation: /a", 1},
        {"HTTP/1.1 302 Found\r\nLocation", 1},
        {"HTTP/1.1 301 Moved\r\nLocation: /a\r\n", 1},
        {"HTTP/1.1", -1},
        {"body 302 text", -1},
        {"", -1},
    };
    for (const row& r : rows) {
        char text[100] = {};
        set_text(text, r.text);
        EXPECT_EQ(check_http_redirect(text), r.result) << r.text;
        EXPECT_STREQ(text, r.left == nullptr ? r.text : r.left);
    }
}

// The segment size of a connection to itself, whose default is far above any setting.
int segment_size_with(const char* setting) {
    set_text(pluginmgr_config.tcp_mss, setting);
    loopback_socket server;
    socklen_t length = sizeof server.address;
    EXPECT_EQ(listen(server.fd.get(), 1), 0);
    const unique_fd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect_nonb(client.get(), server.name(), length, 2), 0);
    EXPECT_EQ(fcntl(client.get(), F_GETFL) & O_NONBLOCK, 0);
    int size = 0;
    length = sizeof size;
    EXPECT_EQ(getsockopt(client.get(), IPPROTO_TCP, TCP_MAXSEG, &size, &length), 0);
    return size;
}

TEST_F(net, applies_segment_sizes_inside_the_limits) {
    EXPECT_GT(segment_size_with("512"), 1420);
    EXPECT_LE(segment_size_with("513"), 513);
    EXPECT_LE(segment_size_with("1419"), 1419);
    EXPECT_GT(segment_size_with("1420"), 1420);
    EXPECT_GT(segment_size_with(""), 1420);
}

TEST_F(net, a_failed_connect_forgets_the_address_and_a_failed_handshake_does_not) {
    https_conn conn;
    std::string place;
    {
        tls_server server(std::nullopt);
        place = server.place();
        const long long start = now_ms();
        EXPECT_EQ(connect_https(&conn, server.place().c_str()), ERR_TLS);
        EXPECT_LT(now_ms() - start, 2000);
        EXPECT_EQ(conn.socket, -1);
        EXPECT_NE(conn.server_address, 0U);
    }
    EXPECT_EQ(connect_https(&conn, place.c_str()), ERR_CONNECT);
    EXPECT_EQ(conn.socket, -1);
    EXPECT_EQ(conn.server_address, 0U);
}

}  // namespace
