// SPDX-License-Identifier: Apache-2.0
// A TLS server for tests: one thread on a port that the kernel chose, with a certificate made on
// the spot. It serves the connections of its script one after the other and keeps what it was sent.
#pragma once

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <utility>
#include <vector>

class tls_server {
  public:
    enum ending { closes, waits };  // after its answers: closes, or reads until the client closes
    struct visit {
        std::vector<std::string> answers;  // one for each request
        ending end = waits;
        bool handshake = true;  // false: hangs up instead
    };

    explicit tls_server(std::vector<visit> script) : script_(std::move(script)) {
        signal(SIGPIPE, SIG_IGN);
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* const name = reinterpret_cast<sockaddr*>(&address);
        if (bind(listener_, name, length) != 0 || listen(listener_, 8) != 0 ||
            getsockname(listener_, name, &length) != 0) {
            abort();
        }
        place_ = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        thread_ = std::thread([this] { serve(); });
    }
    ~tls_server() {
        finish();
        close(listener_);
    }
    tls_server(const tls_server&) = delete;
    tls_server& operator=(const tls_server&) = delete;

    const char* place() const { return place_.c_str(); }
    std::string url(const std::string& path) const { return "https://" + place_ + path; }
    // The texts of all requests, once the script has been played.
    const std::vector<std::string>& requests() {
        finish();
        return requests_;
    }

  private:
    void finish() {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

    static void make_certificate(SSL_CTX* context) {
        EVP_PKEY* key = nullptr;
        EVP_PKEY_CTX* maker = EVP_PKEY_CTX_new_id(EVP_PKEY_EC, nullptr);
        EVP_PKEY_keygen_init(maker);
        EVP_PKEY_CTX_set_ec_paramgen_curve_nid(maker, NID_X9_62_prime256v1);
        EVP_PKEY_keygen(maker, &key);
        X509* certificate = X509_new();
        X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
        X509_gmtime_adj(X509_getm_notAfter(certificate), 3600);
        X509_set_pubkey(certificate, key);
        X509_sign(certificate, key, EVP_sha256());
        SSL_CTX_use_certificate(context, certificate);
        SSL_CTX_use_PrivateKey(context, key);
        X509_free(certificate);
        EVP_PKEY_free(key);
        EVP_PKEY_CTX_free(maker);
    }

    void serve() {
        SSL_CTX* context = SSL_CTX_new(TLS_server_method());
        make_certificate(context);
        for (const visit& v : script_) {
            pollfd waiting = {listener_, POLLIN, 0};
            if (poll(&waiting, 1, 5000) != 1) {
                break;  // the client never came: the test has failed already
            }
            const int client = accept(listener_, nullptr, nullptr);
            SSL* ssl = SSL_new(context);
            SSL_set_fd(ssl, client);
            if (v.handshake && SSL_accept(ssl) == 1) {
                play(ssl, v);
            }
            SSL_free(ssl);
            close(client);
        }
        SSL_CTX_free(context);
    }

    void play(SSL* ssl, const visit& v) {
        for (const std::string& answer : v.answers) {
            requests_.push_back(read_until(ssl, "\r\n\r\n"));
            SSL_write(ssl, answer.data(), static_cast<int>(answer.size()));
        }
        if (v.end == waits) {
            const std::string rest = read_until(ssl, "");
            if (!rest.empty()) {
                requests_.push_back(rest);
            }
        }
        SSL_shutdown(ssl);
    }

    static std::string read_until(SSL* ssl, const std::string& end) {
        std::string text;
        char piece[4096] = {};
        while (end.empty() || text.find(end) == std::string::npos) {
            const int count = SSL_read(ssl, piece, sizeof piece);
            if (count <= 0) {
                break;
            }
            text.append(piece, static_cast<size_t>(count));
        }
        return text;
    }

    std::vector<visit> script_;
    std::vector<std::string> requests_;
    std::string place_;
    int listener_ = -1;
    std::thread thread_;
};

inline std::string answer_of(const std::string& body) {
    return "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}
