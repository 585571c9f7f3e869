// SPDX-License-Identifier: Apache-2.0
// empty_threads [tls]: three threads that do nothing, with the daemon's libraries loaded: what
// merely being such a process costs. Linked as empty_cxx_threads it has libstdc++, and what that
// needs, beside them, as any C++ program has that takes no care. With "tls" after initialising
// OpenSSL, as the daemon does before its first connection. Ends by a signal.
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <unistd.h>

namespace {

constexpr int WORKERS = 2;  // beside the main thread

[[noreturn]] void* wait_for_ever(void* /*unused*/) {
    for (;;) {
        pause();
    }
}

void initialise_tls() {
    OPENSSL_init_ssl(0, nullptr);
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    RAND_poll();
}

}  // namespace

int main(int argc, char** /*argv*/) {
    if (argc > 1) {
        initialise_tls();
    }
    for (int i = 0; i < WORKERS; i++) {
        pthread_t worker = {};
        if (pthread_create(&worker, nullptr, wait_for_ever, nullptr) != 0) {
            return 1;
        }
    }
    wait_for_ever(nullptr);
}
