// SPDX-License-Identifier: Apache-2.0
// The TLS connections of transport.h. The only file here that knows the TLS library.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <pthread.h>
#include <resolv.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "base/result.h"
#include "base/text.h"
#include "config/settings.h"
#include "device/url.h"
#include "log/tb_log.h"
#include "net/socket_io.h"
#include "net/transport.h"

namespace {

constexpr size_t HOST_SIZE = 256;
constexpr size_t PATH_SIZE = 1024;
constexpr int HTTPS_PORT = 443;
constexpr int HANDSHAKE_SECONDS = 8;
constexpr int HANDSHAKE_LIMIT = 10 * HANDSHAKE_SECONDS;
constexpr int HANDSHAKE_RETRIES = 256;  // that come without a wait
constexpr size_t REASON_SIZE = 256;
constexpr int HANDSHAKE_DONE = 1;
constexpr int MAX_MESSAGES = 256;  // of TLS's own on one connection; an honest server sends a dozen

int open_tcp(https_conn* conn, const char* host, int port) {
    conn->socket = new_tcp_socket("connect_https");
    if (conn->socket < 0) {
        return ERR_SOCKET;
    }
    sockaddr_in server = {};
    server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<uint16_t>(port));
    server.sin_addr.s_addr = conn->server_address;
    if (connect_nonb(conn->socket, reinterpret_cast<const sockaddr*>(&server), sizeof server,
                     pluginmgr_config.conn_timeout) != 0) {
        log_err("connect_https", __LINE__, "Connect %s:%d Error: %s", host, port, strerror(errno));
        close_https(conn);
        (void)res_init();  // the next attempt resolves afresh
        conn->server_address = 0;
        return ERR_CONNECT;
    }
    return 0;
}

int tls_failure(const char* step) {
    log_err("connect_https", __LINE__, "%s Error", step);
    return ERR_TLS;
}

int load_authorities(https_conn* conn) {
    const char* file = pluginmgr_config.tls_ca_file;
    if (SSL_CTX_load_verify_locations(conn->ssl_ctx, file, nullptr) == 1) {
        return 0;
    }
    char reason[REASON_SIZE] = {};
    ERR_error_string_n(ERR_peek_error(), reason, sizeof reason);
    ERR_clear_error();
    log_err("connect_https", __LINE__, "tls_ca_file %s can't be loaded: %s", file, reason);
    return ERR_TLS;
}

// Whether from now on the handshake asks for a certificate of host. An address is looked for among
// the certificate's addresses and is not sent; an empty name would match any certificate.
bool ask_for_name(SSL* ssl, const char* host) {
    in_addr address = {};
    if (inet_pton(AF_INET, host, &address) == 1) {
        return X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host) == 1;
    }
    SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    return !is_empty(host) && SSL_set1_host(ssl, host) == 1 &&
           SSL_set_tlsext_host_name(ssl, host) == 1;
}

int require_certificate(https_conn* conn, const char* host) {
    const int code = load_authorities(conn);
    if (code != 0) {
        return code;
    }
    if (!ask_for_name(conn->ssl, host)) {
        log_err("connect_https", __LINE__, "No certificate can be asked for host '%s'", host);
        return ERR_TLS;
    }
    SSL_set_verify(conn->ssl, SSL_VERIFY_PEER, nullptr);
    return 0;
}

// Says why, when it was the certificate that ended the handshake.
void log_refusal(const https_conn& conn, const char* host) {
    const long reason = SSL_get_verify_result(conn.ssl);
    if (reason != X509_V_OK) {
        log_err("connect_https", __LINE__, "Certificate of %s refused: %s", host,
                X509_verify_cert_error_string(reason));
    }
}

// One read goes on over session tickets and the like for as long as they come, whatever the
// deadline of its caller. Beyond all reason they are the end of the connection.
void count_message(int sent, int /*version*/, int type, const void* /*message*/, size_t /*length*/,
                   SSL* ssl, void* owner) {
    auto* conn = static_cast<https_conn*>(owner);
    if (sent == 0 && type == SSL3_RT_HANDSHAKE && ++conn->messages > MAX_MESSAGES) {
        SSL_set_shutdown(ssl, SSL_get_shutdown(ssl) | SSL_RECEIVED_SHUTDOWN);
        (void)shutdown(conn->socket, SHUT_RDWR);
    }
}

void initialise_library() {
    OPENSSL_init_ssl(0, nullptr);
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    RAND_poll();
    while (RAND_status() == 0) {
        // Only for a system without any entropy; a weak seed is better than none.
        const auto seed =
            static_cast<int16_t>(rand() % 65536);  // NOLINT(cert-msc30-c,cert-msc50-cpp)
        RAND_seed(&seed, sizeof seed);
    }
}

// The TLS session on a connected socket. The caller closes conn after a failure.
int open_tls(https_conn* conn, const char* host) {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    (void)pthread_once(&once, initialise_library);
    conn->ssl_ctx = SSL_CTX_new(TLS_client_method());
    if (conn->ssl_ctx == nullptr) {
        return tls_failure("SSL_CTX_new");
    }
    SSL_CTX_set_read_ahead(conn->ssl_ctx, 1);  // one system call a record, not two
    conn->ssl = SSL_new(conn->ssl_ctx);
    if (conn->ssl == nullptr) {
        return tls_failure("SSL_new");
    }
    SSL_set_msg_callback(conn->ssl, count_message);
    SSL_set_msg_callback_arg(conn->ssl, conn);
    if (tls_is_verified() && require_certificate(conn, host) != 0) {
        return ERR_TLS;
    }
    if (SSL_set_fd(conn->ssl, conn->socket) != 1) {
        return tls_failure("SSL_set_fd");
    }
    log_msg(LOG_API, LEVEL_PROGRESS, "connect_https", __LINE__,
            "ssl set fd ok, then start connecting ssl....");
    if (ssl_connect_nonb(conn) != HANDSHAKE_DONE) {
        if (tls_is_verified()) {
            log_refusal(*conn, host);
        }
        const int code = tls_failure("SSL_connect");
        ERR_print_errors_fp(stderr);
        return code;
    }
    return 0;
}

// Whether a handshake that came to error goes on. Want-write ends it, as does anything unknown.
bool handshake_goes_on(const https_conn& conn, int error, long long end) {
    if (error == SSL_ERROR_WANT_READ) {
        const long long deadline = std::min(deadline_in(HANDSHAKE_SECONDS), end);
        if (wait_until(conn.socket, POLLIN, deadline) == 0 && now_ms() < end) {
            return true;
        }
        log_err("ssl_connect_nonb", __LINE__, "SSL_connect timeout");
        return false;
    }
    return (error == SSL_ERROR_SYSCALL || error == SSL_ERROR_ZERO_RETURN) && errno == 0;
}

// Waits for what the TLS library lacks, which is something to read when the server has asked for
// another handshake. False when nothing helps, or the time is over.
bool send_goes_on(const https_conn& conn, int error, long long end) {
    if (error != SSL_ERROR_WANT_WRITE && error != SSL_ERROR_WANT_READ) {
        return false;
    }
    return wait_to_send(conn.socket, error == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN, end);
}

// One write, repeated until it is done. Bytes written, or less than 1.
int write_tls(const https_conn& conn, const char* data, size_t length, long long end) {
    const int part = static_cast<int>(std::min<size_t>(length, INT_MAX));
    int count = 0;
    do {
        ERR_clear_error();
        count = SSL_write(conn.ssl, data, part);
    } while (count < 1 && send_goes_on(conn, SSL_get_error(conn.ssl, count), end));
    return count;
}

int send_all(const https_conn& conn, const char* bytes, size_t length) {
    const long long end = send_deadline();
    for (size_t sent = 0; sent < length;) {
        const int count = write_tls(conn, bytes + sent, length - sent, end);
        if (count < 1) {
            log_err("send_https_buf", __LINE__, "SSL_write Error");
            return FAILED;
        }
        sent += static_cast<size_t>(count);
        log_msg(LOG_API, LEVEL_TRACE, "send_https_buf", __LINE__, "%zu bytes send OK!", sent);
    }
    return 0;
}

}  // namespace

bool tls_is_verified() {
    return !is_empty(pluginmgr_config.tls_ca_file);
}

void ssl_library_init() {
    log_msg(LOG_API, LEVEL_PROGRESS, __func__, __LINE__, "initialize ssl library");
}

int ssl_connect_nonb(https_conn* conn) {
    const long long end = deadline_in(HANDSHAKE_LIMIT);
    int result = 0;
    for (int retries = 0; retries < HANDSHAKE_RETRIES;) {
        ERR_clear_error();
        errno = 0;
        result = SSL_connect(conn->ssl);
        const int reason = errno;
        const int error = SSL_get_error(conn->ssl, result);
        errno = reason;
        if (!handshake_goes_on(*conn, error, end)) {
            break;
        }
        retries += error == SSL_ERROR_WANT_READ ? 0 : 1;
    }
    return result;
}

void init_https_conn(https_conn* conn) {
    conn->socket = -1;
    conn->ssl = nullptr;
    conn->ssl_ctx = nullptr;
    conn->messages = 0;
}

void close_https(https_conn* conn) {
    if (conn->socket == -1) {
        return;
    }
    log_msg(LOG_API, LEVEL_PROGRESS, __func__, __LINE__, "%d will shutdown ssl %p", getpid(),
            static_cast<void*>(conn->ssl));
    if (conn->ssl != nullptr) {
        (void)SSL_shutdown(conn->ssl);  // the peer may be gone
        ERR_clear_error();
    }
    (void)close(conn->socket);
    SSL_free(conn->ssl);
    SSL_CTX_free(conn->ssl_ctx);
    init_https_conn(conn);
}

int connect_https(https_conn* conn, const char* url) {
    char host[HOST_SIZE] = {};
    char path[PATH_SIZE] = {};
    int port = HTTPS_PORT;
    split_url(url, host, path, &port, sizeof host, sizeof path);
    init_https_conn(conn);
    if (conn->server_address == 0) {
        const int code = dns_resove(host, conn, nullptr, 0);
        if (code != 0) {
            return code;
        }
    }
    int code = open_tcp(conn, host, port);
    if (code != 0) {
        return code;
    }
    log_msg(LOG_API, LEVEL_PROGRESS, __func__, __LINE__,
            "%d tcp connect success, then start ssl ....", getpid());
    code = open_tls(conn, host);
    if (code != 0) {
        close_https(conn);
        return code;
    }
    log_msg(LOG_API, LEVEL_PROGRESS, __func__, __LINE__, "%d ssl connect ok", getpid());
    return 0;
}

int send_https_buf(https_conn* conn, const void* data, size_t length) {
    if (conn->socket == -1) {
        log_err(__func__, __LINE__, "https doesn't connected");
        return FAILED;
    }
    return send_all(*conn, static_cast<const char*>(data), length);
}

int send_https_str(https_conn* conn, const char* text) {
    return send_https_buf(conn, text, strlen(text));
}

long read_tls(net_stream* stream, char* out, size_t size) {
    ERR_clear_error();
    const int count = SSL_read(stream->ssl, out, static_cast<int>(std::min<size_t>(size, INT_MAX)));
    stream->error = count > 0 ? SSL_ERROR_NONE : SSL_get_error(stream->ssl, count);
    const bool wants_write = stream->error == SSL_ERROR_WANT_WRITE;
    stream->events = wants_write ? POLLOUT : POLLIN;
    return wants_write || stream->error == SSL_ERROR_WANT_READ ? READ_AGAIN : count;
}

bool has_pending(const net_stream& stream) {
    return stream.ssl != nullptr && SSL_has_pending(stream.ssl) == 1;
}

bool has_payload(const https_conn& conn) {
    char first = '\0';
    ERR_clear_error();
    const int count = SSL_peek(conn.ssl, &first, sizeof first);
    const int error = SSL_get_error(conn.ssl, count);
    ERR_clear_error();
    return error != SSL_ERROR_WANT_READ || SSL_has_pending(conn.ssl) == 1;
}

void end_sending(https_conn* conn) {
    const long long end = send_deadline();
    int result = 0;
    do {
        ERR_clear_error();
        result = SSL_shutdown(conn->ssl);  // the peer may be gone
    } while (result < 0 && send_goes_on(*conn, SSL_get_error(conn->ssl, result), end));
    // Its notice is not awaited when the connection is closed.
    SSL_set_shutdown(conn->ssl, SSL_SENT_SHUTDOWN | SSL_RECEIVED_SHUTDOWN);
    (void)shutdown(conn->socket, SHUT_WR);
}
