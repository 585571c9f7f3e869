// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
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

const std::string SMALL_HEAD = "HTTP/1.1 200 OK\r\nContent-Length: ";

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
    char text[8192] = {};
    rewind(file);
    return {text, fread(text, 1, sizeof text, file)};
}

struct receive_row {
    const char* what;
    std::vector<std::string> pieces;  // each is one read
    size_t size;                      // of the buffer
    int result;
    std::string held;   // at the start of the buffer
    std::string saved;  // in the file
    bool cut = false;   // the peer closes after the pieces; else it must not be waited for
};

void check_receive(const receive_row& r) {
    SCOPED_TRACE(r.what);
    const socket_pair pair(r.pieces.size() == 1 ? SOCK_STREAM : SOCK_SEQPACKET);
    for (const std::string& piece : r.pieces) {
        ASSERT_EQ(send(pair.far.get(), piece.data(), piece.size(), 0),
                  static_cast<ssize_t>(piece.size()));
    }
    if (r.cut) {
        shutdown(pair.far.get(), SHUT_WR);
    }
    const file_ptr file(tmpfile());
    // The sanitizers see a byte behind the terminator's place.
    const auto buffer = std::make_unique<char[]>(r.size + 1);
    const long long start = now_ms();
    EXPECT_EQ(recv_http(pair.near.get(), buffer.get(), r.size, 9, file.get()), r.result);
    EXPECT_LT(now_ms() - start, 4000);
    EXPECT_EQ(std::string(buffer.get()).substr(0, r.held.size()), r.held);
    EXPECT_EQ(content_of(file.get()), r.saved);
}

std::vector<std::string> bytes_after(const std::string& first, const std::string& rest) {
    std::vector<std::string> pieces = {first};
    for (const char c : rest) {
        pieces.emplace_back(1, c);
    }
    return pieces;
}

TEST_F(net, receives_until_the_announced_length) {
    const std::string small = answer_of("body");
    const std::string ten(10, 'x');
    const std::string hundred = answer_of(std::string(100, 'y'));
    const int total = static_cast<int>(small.size());
    const int long_total = static_cast<int>(hundred.size());
    const receive_row rows[] = {
        {"fits", {small}, 100, total, small, "body"},
        {"fits exactly", {small}, small.size(), total, small, "body"},
        {"one byte too long", {small}, small.size() - 1, total, "y", "body"},
        {"body piece by piece", {SMALL_HEAD + "4\r\n\r\n", "bo", "dy"}, 99, total, small, "body"},
        {"byte by byte", bytes_after(SMALL_HEAD, "4\r\n\r\nbody"), 100, total, small, "body"},
        {"buffer filled by the last read",
         {hundred},
         hundred.size() / 2,
         long_total,
         "y",
         std::string(100, 'y')},
        {"many short reads", bytes_after(hundred.substr(0, 50), hundred.substr(50)), 60, long_total,
         "y", std::string(100, 'y')},
        {"empty body", {answer_of("")}, 100, static_cast<int>(answer_of("").size()), "HTTP", ""},
        {"announced but cut off", {SMALL_HEAD + "9\r\n\r\nabc"}, 100, 41, "HTTP", "", true},
        {"too long and cut off", {SMALL_HEAD + "999\r\n\r\nabc"}, 50, 43, "HTTP", "abc", true},
        {"nothing", {}, 100, 0, "", "", true},
    };
    for (const receive_row& r : rows) {
        check_receive(r);
    }
}

TEST_F(net, takes_an_answer_without_sensible_length_as_complete) {
    const receive_row rows[] = {
        {"no length", {"HTTP/1.1 200 OK\r\n\r\nab", "cd"}, 100, 21, "HTTP", "ab"},
        {"first read too short to tell", {"H", "TTP/1.1 200 OK\r\n\r\n"}, 100, 1, "H", ""},
        {"no number", {SMALL_HEAD + "abc\r\n\r\nxy"}, 100, 42, "HTTP", "xy"},
        {"negative", {SMALL_HEAD + "-5\r\n\r\nxy"}, 100, 41, "HTTP", "xy"},
        {"absurd", {SMALL_HEAD + "99999999999999999999\r\n\r\nxy"}, 100, 59, "HTTP", "xy"},
        {"just over an int", {SMALL_HEAD + "2147483647\r\n\r\n"}, 100, 47, "HTTP", ""},
        {"name at the very end",
         {"HTTP/1.1 200 OK\r\n\r\nContent-Length"},
         100,
         33,
         "HTTP",
         "Content-Length"},
        {"header without end fills the buffer",
         {SMALL_HEAD + std::string(66, '7')},
         50,
         50,
         "HTTP",
         ""},
    };
    for (const receive_row& r : rows) {
        check_receive(r);
    }
}

TEST_F(net, receive_ends_with_a_redirect_or_the_wait) {
    const std::string found = "HTTP/1.1 302 Found\r\n";
    check_receive({"redirect", {found + "Location: /x\r\n\r\n"}, 99, GOT_REDIRECT, "/x", ""});
    check_receive({"to nowhere", {found + "\r\n"}, 99, GOT_REDIRECT, "HTTP/1.1 302", ""});
    const socket_pair pair(SOCK_STREAM);
    char buffer[11] = {};
    EXPECT_EQ(recv_http(pair.near.get(), buffer, 10, 0, nullptr), 0);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(net, tells_redirects) {
    struct row {
        const char* text;
        int result;
        const char* left;
    };
    const row rows[] = {
        {"HTTP/1.1 302 Found\r\nLocation: /a/b?c\r\nX: y\r\n", 0, "/a/b?c"},
        {"HTTP/1.0 302\r\nLocation:/a\r\n", 0, "/a"},
        {"HTTP/1.1 302 Found\r\nLocation:\r\n", 0, ""},
        {"HTTP/1.1 302 Found\r\n\r\n", 0, "HTTP/1.1 302 Found\r\n\r\n"},
        {"HTTP/1.1 302 Found\r\nLocation: /a", 1, "HTTP/1.1 302 Found\r\nLocation: /a"},
        {"HTTP/1.1 302 Found\r\nLocation", 1, "HTTP/1.1 302 Found\r\nLocation"},
        {"HTTP/1.1 301 Moved\r\nLocation: /a\r\n", 1, "HTTP/1.1 301 Moved\r\nLocation: /a\r\n"},
        {"HTTP/1.1", -1, "HTTP/1.1"},
        {"body 302 text", -1, "body 302 text"},
        {"", -1, ""},
    };
    for (const row& r : rows) {
        char text[100] = {};
        set_text(text, r.text);
        EXPECT_EQ(check_http_redirect(text), r.result) << r.text;
        EXPECT_STREQ(text, r.left);
    }
}

// The segment size of a connection to itself, whose default is far above any setting.
int segment_size_with(const char* setting) {
    set_text(pluginmgr_config.tcp_mss, setting);
    const unique_fd server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const unique_fd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const name = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(server.get(), name, length), 0);
    EXPECT_EQ(getsockname(server.get(), name, &length), 0);
    EXPECT_EQ(connect_nonb(client.get(), name, length, 2), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(listen(server.get(), 1), 0);
    const unique_fd again(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect_nonb(again.get(), name, length, 2), 0);
    EXPECT_EQ(fcntl(again.get(), F_GETFL) & O_NONBLOCK, 0);
    int size = 0;
    length = sizeof size;
    EXPECT_EQ(getsockopt(again.get(), IPPROTO_TCP, TCP_MAXSEG, &size, &length), 0);
    return size;
}

TEST_F(net, applies_segment_sizes_inside_the_limits) {
    EXPECT_GT(segment_size_with("512"), 1420);
    EXPECT_LE(segment_size_with("513"), 513);
    EXPECT_LE(segment_size_with("1419"), 1419);
    EXPECT_GT(segment_size_with("1420"), 1420);
    EXPECT_GT(segment_size_with(""), 1420);
}

TEST_F(net, resolves_into_record_and_text) {
    https_conn conn;
    char text[6] = {};
    EXPECT_EQ(dns_resove("127.0.0.1", &conn, text, sizeof text), 0);
    EXPECT_EQ(conn.server_address, htonl(INADDR_LOOPBACK));
    EXPECT_STREQ(text, "127.0");
    EXPECT_EQ(send_http_str(0, "x"), -1);
}

TEST_F(net, a_tls_connection_opens_talks_and_closes) {
    const std::string body(70000, 'b');
    tls_server server({{{answer_of(body), answer_of("2nd")}, tls_server::closes}});
    https_conn conn;
    EXPECT_EQ(check_https_conn(&conn), -1);
    ASSERT_EQ(connect_https(&conn, server.url("/path").c_str()), 0);
    char buffer[2049] = {};
    // Only session tickets can come now, which are no answer.
    EXPECT_EQ(recv_https(&conn, buffer, 2048, 0, nullptr), 0);
    const file_ptr file(tmpfile());
    EXPECT_EQ(send_https_str(&conn, "GET\r\n\r\n"), 0);
    EXPECT_EQ(recv_https(&conn, buffer, 2048, 5, file.get()),
              static_cast<int>(answer_of(body).size()));
    EXPECT_EQ(ftell(file.get()), 70000);
    EXPECT_EQ(check_https_conn(&conn), 0);
    EXPECT_EQ(send_https_str(&conn, "GET\r\n\r\n"), 0);
    EXPECT_EQ(recv_https(&conn, buffer, 2048, 5, nullptr),
              static_cast<int>(answer_of("2nd").size()));
    EXPECT_EQ(server.requests().size(), 2U);  // and so the server has closed its side
    EXPECT_EQ(check_https_conn(&conn), -1);
    EXPECT_EQ(conn.socket, -1);
    EXPECT_EQ(send_https_str(&conn, "x"), -1);
    close_https(&conn);
}

TEST_F(net, a_failed_connect_forgets_the_address_and_a_failed_handshake_does_not) {
    https_conn conn;
    std::string place;
    {
        tls_server server({{{}, tls_server::closes, false}});
        place = server.place();
        const long long start = now_ms();
        EXPECT_EQ(connect_https(&conn, server.place()), ERR_TLS);
        EXPECT_LT(now_ms() - start, 2000);
        EXPECT_EQ(conn.socket, -1);
        EXPECT_NE(conn.server_address, 0U);
    }
    EXPECT_EQ(connect_https(&conn, place.c_str()), ERR_CONNECT);
    EXPECT_EQ(conn.socket, -1);
    EXPECT_EQ(conn.server_address, 0U);
}

}  // namespace
