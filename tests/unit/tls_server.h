// SPDX-License-Identifier: Apache-2.0
// A TLS server for tests: one thread on a port that the kernel chose, with a certificate made on
// the spot. It serves one connection and keeps what it was sent.
#pragma once

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <signal.h>

#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/handles.h"

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

inline std::string answer_of(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

class tls_server {
  public:
    // One answer for each request, then the server closes; with an empty list it reads until the
    // client closes, and without a list it hangs up instead of shaking hands.
    explicit tls_server(std::optional<std::vector<std::string>> answers)
        : answers_(std::move(answers)) {
        signal(SIGPIPE, SIG_IGN);
        if (listen(listener_.fd.get(), 1) != 0) {
            abort();
        }
        thread_ = std::thread([this] { serve(); });
    }
    ~tls_server() { requests(); }
    tls_server(const tls_server&) = delete;
    tls_server& operator=(const tls_server&) = delete;

    std::string place() const { return listener_.place(); }
    // The texts of all requests, once the connection is over.
    const std::vector<std::string>& requests() {
        if (thread_.joinable()) {
            thread_.join();
        }
        return requests_;
    }

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
        if (answers_ && SSL_accept(ssl) == 1) {
            for (const std::string& answer : *answers_) {
                requests_.push_back(read_until(ssl, "\r\n\r\n"));
                SSL_write(ssl, answer.data(), static_cast<int>(answer.size()));
            }
            if (answers_->empty()) {
                requests_.push_back(read_until(ssl, "never"));
            }
            SSL_shutdown(ssl);
        }
        SSL_free(ssl);
        SSL_CTX_free(context);
    }

    static std::string read_until(SSL* ssl, const char* end) {
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

    loopback_socket listener_;
    std::optional<std::vector<std::string>> answers_;
    std::vector<std::string> requests_;
    std::thread thread_;
};
