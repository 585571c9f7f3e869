// SPDX-License-Identifier: Apache-2.0
// empty_threads [tls|ticks]: three threads that do nothing, with the daemon's libraries loaded:
// what merely being such a process costs. Linked as empty_cxx_threads it has libstdc++, and what
// that needs, beside them, as any C++ program has that takes no care. With "tls" after initialising
// OpenSSL, as the daemon does before its first connection; with "ticks" they wake up as often as
// the idle daemon's. Ends by a signal.
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <pthread.h>
#include <unistd.h>

#include <string_view>

namespace {

constexpr int WORKERS = 2;  // beside the main thread
constexpr useconds_t MAIN_TICK = 1'000'000;
constexpr useconds_t WORKER_TICK = 100'000;

// tick: microseconds; null is none.
[[noreturn]] void* wait_for_ever(void* tick) {
    for (;;) {
        if (tick == nullptr) {
            pause();
        } else {
            usleep(*static_cast<const useconds_t*>(tick));
        }
    }
}

void initialise_tls() {
    OPENSSL_init_ssl(0, nullptr);
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    RAND_poll();
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view mode = argc > 1 ? argv[1] : "";
    useconds_t main_tick = MAIN_TICK;
    useconds_t worker_tick = WORKER_TICK;
    if (mode == "tls") {
        initialise_tls();
    }
    for (int i = 0; i < WORKERS; i++) {
        pthread_t worker = {};
        if (pthread_create(&worker, nullptr, wait_for_ever,
                           mode == "ticks" ? &worker_tick : nullptr) != 0) {
            return 1;
        }
    }
    wait_for_ever(mode == "ticks" ? &main_tick : nullptr);
}
