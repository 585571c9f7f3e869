// SPDX-License-Identifier: Apache-2.0
// The network client on sockets of the test's own: one end of a pair, or a TLS server in a thread.
#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/handles.h"
#include "base/result.h"
#include "base/text.h"
#include "config/settings.h"
#include "log/tb_log.h"
#include "net/http.h"
#include "net/socket_io.h"
#include "net/transfer.h"
#include "scratch.h"
#include "upgrade/fetch.h"

namespace {

class net : public scratch {
  protected:
    net() {
        log_set_output(LOG_TO_NONE);
        pluginmgr_config.conn_timeout = 2;
    }
};

// A socket bound to a loopback port that the kernel chose.
struct loopback_socket {
    loopback_socket() {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (bind(fd.get(), name(), length) != 0 || getsockname(fd.get(), name(), &length) != 0) {
            abort();
        }
    }
    std::string place() const { return "127.0.0.1:" + std::to_string(ntohs(address.sin_port)); }
    sockaddr* name() { return reinterpret_cast<sockaddr*>(&address); }

    unique_fd fd{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    sockaddr_in address = {};
};

std::string answer_of(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

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
    int ends[2] = {};
    const int type = r.sent.size() == 1 ? SOCK_STREAM : SOCK_SEQPACKET;
    ASSERT_EQ(socketpair(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    const unique_fd near(ends[0]);
    const unique_fd far(ends[1]);
    size_t taken = 0;
    for (size_t i = 0; i < r.sent.size(); i++) {
        ASSERT_GT(send(far.get(), r.sent[i].data(), r.sent[i].size(), 0), 0);
        taken += i < r.taken ? r.sent[i].size() : 0;
    }
    if (r.cut) {
        shutdown(far.get(), SHUT_WR);
    }
    const file_ptr file(tmpfile());
    // The sanitizers see a byte behind the terminator's place.
    const auto buffer = std::make_unique<char[]>(r.size + 1);
    const long long start = now_ms();
    EXPECT_EQ(recv_http(near.get(), buffer.get(), r.size, 9, file.get()), static_cast<int>(taken));
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
        {"too long and cut off", {start + "999\r\n\r\nabc"}, 43, "abc", 99, true},
        // without a sensible length, complete with the first read
        {"no length", {"HTTP/1.1 200 OK\r\n\r\nab", "cd"}, 100, "ab", 1},
        {"first read too short to tell", {"H", "TTP/1.1 200 OK\r\n\r\n"}, 100, "", 1},
        {"negative", {start + "-99\r\n\r\nxy"}, 100, "xy"},
        {"just over an int", {start + "2147483647\r\n\r\n"}, 100, ""},
    };
    for (const receive_row& r : rows) {
        check_receive(r);
    }
}

void say(SSL* ssl, const std::string& text) {
    SSL_write(ssl, text.data(), static_cast<int>(text.size()));
}

// What comes up to the end of a request, or up to the end. The first read shakes hands.
std::string hear(SSL* ssl, const char* end = "\r\n\r\n") {
    std::string text;
    char piece[4096] = {};
    while (text.find(end) == std::string::npos) {
        const int count = SSL_read(ssl, piece, sizeof piece);
        if (count <= 0) {
            break;
        }
        text.append(piece, static_cast<size_t>(count));
    }
    return text;
}

// One thread, one connection, a certificate made on the spot. What it does there is the test's own.
class tls_server {
  public:
    // Closes the connection when talk returns.
    explicit tls_server(std::function<void(SSL*)> talk) : talk_(std::move(talk)) {
        signal(SIGPIPE, SIG_IGN);
        if (listen(listener_.fd.get(), 1) != 0) {
            abort();
        }
        thread_ = std::thread([this] { serve(); });
    }
    ~tls_server() { thread_.join(); }
    tls_server(const tls_server&) = delete;
    tls_server& operator=(const tls_server&) = delete;

    std::string place() const { return listener_.place(); }

  private:
    static void make_certificate(SSL_CTX* context) {
        EVP_PKEY* key = EVP_EC_gen("P-256");
        X509* certificate = X509_new();
        X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
        X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
        X509_set_pubkey(certificate, key);
        X509_sign(certificate, key, EVP_sha256());
        SSL_CTX_use_certificate(context, certificate);
        SSL_CTX_use_PrivateKey(context, key);
        X509_free(certificate);
        EVP_PKEY_free(key);
    }

    void serve() {
        pollfd waiting = {listener_.fd.get(), POLLIN, 0};
        if (poll(&waiting, 1, 5000) != 1) {
            return;  // the client never came: the test has failed already
        }
        const unique_fd client(accept(waiting.fd, nullptr, nullptr));
        SSL_CTX* context = SSL_CTX_new(TLS_server_method());
        make_certificate(context);
        SSL* ssl = SSL_new(context);
        SSL_set_fd(ssl, client.get());
        SSL_set_accept_state(ssl);
        talk_(ssl);
        SSL_shutdown(ssl);
        SSL_free(ssl);
        SSL_CTX_free(context);
    }

    loopback_socket listener_;
    std::function<void(SSL*)> talk_;
    std::thread thread_;
};

// Sends a record in two halves, of which the second comes after the pause.
void say_slowly(SSL* ssl, const std::string& text, useconds_t pause) {
    BIO* memory = BIO_new(BIO_s_mem());
    SSL_set0_wbio(ssl, memory);
    say(ssl, text);
    char* bytes = nullptr;
    const auto size = static_cast<size_t>(BIO_get_mem_data(memory, &bytes));
    for (const auto& [from, count] :
         {std::pair{size_t{0}, size / 2}, {size / 2, size - size / 2}}) {
        usleep(pause);
        send(SSL_get_rfd(ssl), bytes + from, count, 0);
    }
    SSL_set0_wbio(ssl, BIO_new_socket(SSL_get_rfd(ssl), BIO_NOCLOSE));
}

// Asks on an open connection; the body of the answer.
std::string exchange(https_conn* conn) {
    char answer[200] = {};
    EXPECT_EQ(send_https_str(conn, "GET\r\n\r\n"), 0);
    EXPECT_GT(recv_https(conn, answer, sizeof answer - 1, 1, nullptr), 0);
    const std::string text = answer;
    return text.substr(std::min(text.find("\r\n\r\n") + 4, text.size()));
}

TEST_F(net, only_what_a_reader_would_get_ends_a_kept_connection) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const tls_server server([version](SSL* ssl) {
            SSL_set_max_proto_version(ssl, version);
            hear(ssl);
            say(ssl, answer_of("1"));
            hear(ssl);
            say_slowly(ssl, answer_of("2"), 700000);
            // a late session ticket, or the wish for another handshake
            (void)(version == TLS1_3_VERSION ? SSL_new_session_ticket(ssl) : SSL_renegotiate(ssl));
            SSL_do_handshake(ssl);
            hear(ssl);
            say(ssl, answer_of("3"));
            say(ssl, "unasked");
            hear(ssl);
        });
        https_conn conn;
        ASSERT_EQ(connect_https(&conn, server.place().c_str()), 0);
        for (const char* body : {"1", "2", "3"}) {
            EXPECT_EQ(https_peer_state(conn), peer_state::open) << body;
            EXPECT_EQ(exchange(&conn), body);
            (void)wait_readable(conn.socket, 1);
        }
        EXPECT_EQ(check_https_conn(&conn), -1) << version;
    }
}

TEST_F(net, a_flood_of_session_tickets_is_the_end) {
    const tls_server server([](SSL* ssl) {
        SSL_set_num_tickets(ssl, 300);  // sent with the handshake, all read before the answer
        hear(ssl);
        say(ssl, answer_of("late"));
    });
    https_conn conn;
    char answer[200] = {};
    ASSERT_EQ(connect_https(&conn, server.place().c_str()), 0);
    (void)send_https_str(&conn, "GET\r\n\r\n");
    EXPECT_EQ(recv_https(&conn, answer, sizeof answer - 1, 1, nullptr), 0);
    close_https(&conn);
}

// The segment size of a connection to itself, whose default is far above any setting.
int segment_size_with(const char* setting) {
    set_text(pluginmgr_config.tcp_mss, setting);
    loopback_socket server;
    socklen_t length = sizeof server.address;
    EXPECT_EQ(listen(server.fd.get(), 1), 0);
    const unique_fd client(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect_nonb(client.get(), server.name(), length, 2), 0);
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
}

TEST_F(net, no_setting_makes_a_connect_wait_for_ever_or_not_at_all) {
    const int rows[][2] = {{1, 1},         {15, 15}, {120, 120}, {121, 120},
                           {INT_MAX, 120}, {0, 120}, {-1, 120},  {INT_MIN, 120}};
    for (const auto& [stored, waited] : rows) {
        EXPECT_EQ(limited_wait(stored), waited) << stored;
        pluginmgr_config.conn_timeout = stored;
        fetch_command command;
        build_fetch("", "", 0, &command);
        EXPECT_EQ(command.words[5], std::to_string(waited)) << stored;
        EXPECT_LE(send_deadline() - now_ms(), 1'200'000) << stored;
    }
    // The queue of one is full: a second connection comes about after the first was accepted and
    // its request is sent again.
    loopback_socket server;
    ASSERT_EQ(listen(server.fd.get(), 0), 0);
    const unique_fd first(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const unique_fd second(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    ASSERT_EQ(connect(first.get(), server.name(), sizeof server.address), 0);
    std::thread acceptor([&server] {
        usleep(100'000);
        const unique_fd accepted(accept4(server.fd.get(), nullptr, nullptr, SOCK_CLOEXEC));
    });
    EXPECT_EQ(connect_nonb(second.get(), server.name(), sizeof server.address, -1), 0);
    acceptor.join();
}

TEST_F(net, a_failed_connect_forgets_the_address_and_a_failed_handshake_does_not) {
    https_conn conn;
    std::string place;
    {
        const tls_server server([](SSL*) {});
        place = server.place();
        EXPECT_EQ(connect_https(&conn, place.c_str()), ERR_TLS);
        EXPECT_EQ(conn.socket, -1);
        EXPECT_NE(conn.server_address, 0U);
    }
    EXPECT_EQ(connect_https(&conn, place.c_str()), ERR_CONNECT);
    EXPECT_EQ(conn.socket, -1);
    EXPECT_EQ(conn.server_address, 0U);
    EXPECT_EQ(send_http_str(0, "x"), -1);  // refused, though a descriptor
}

TEST_F(net, upload_sends_all_that_it_announces) {
    const std::string file = in("body");
    write_file(file, std::string(1025, 'u'));
    std::string place;
    std::string sent;
    int end = 0;
    {
        const tls_server server([&](SSL* ssl) {
            sent = hear(ssl, "never");
            end = SSL_get_shutdown(ssl);
        });
        place = server.place();
        EXPECT_EQ(https_post_file(place.c_str(), "/up", file.c_str()), 0);
    }
    EXPECT_EQ(sent, "POST /up HTTP/1.1\r\nHost: " + place +
                        "\r\nUser-Agent: Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)\n"
                        "Content-Length: 1025\r\nConnection: close\r\n\r\n" +
                        std::string(1025, 'u'));
    EXPECT_EQ(end, SSL_RECEIVED_SHUTDOWN);  // the close notice, not a bare end
}

}  // namespace
