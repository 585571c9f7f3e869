// SPDX-License-Identifier: Apache-2.0
// udp_client PORT COUNT [CLIENTS [ID]]: asks for a parameter (80000, the cloud mode) COUNT times in
// all as the web server does, one request at a time on each of the CLIENTS' sockets, and prints
// {"qps", "p50_us", "p99_us"}. An answer is whatever brings the request's number back, so an echo
// will do. Ends with 1 when an answer stays out for two seconds.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "base/handles.h"
#include "base/text.h"

namespace {

using std::chrono::steady_clock;

constexpr time_t ANSWER_SECONDS = 2;
constexpr uint32_t ECHO_MARKER = 0x8888;
constexpr size_t ANSWER_SIZE = 4096;
constexpr int MAX_CLIENTS = 64;
constexpr int CLOUD_MODE = 80000;

// The control protocol's request, integers in host order.
struct request {
    uint8_t unused[8] = {};
    uint32_t cookie = 0;
    uint32_t remote_ip = 0;
    uint32_t num_variable = 1;
    uint32_t echo_word = 0;
    uint32_t marker = ECHO_MARKER;
    uint8_t marker_flag = 0;
    uint8_t padding[3] = {};
    char query[32] = {};
};
static_assert(sizeof(request) == 64);

int connect_to(uint16_t port) {
    unique_fd fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval limit = {.tv_sec = ANSWER_SECONDS, .tv_usec = 0};
    if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit)) != 0 ||
        connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        return -1;
    }
    return fd.release();
}

bool ask(int fd, request* question) {
    char answer[ANSWER_SIZE] = {};
    if (send(fd, question, sizeof(*question), 0) != sizeof(*question)) {
        return false;
    }
    const ssize_t received = recv(fd, answer, sizeof(answer), 0);
    return received > static_cast<ssize_t>(offsetof(request, query)) &&
           memcmp(answer + offsetof(request, cookie), &question->cookie,
                  sizeof(question->cookie)) == 0;
}

double microseconds(steady_clock::duration time) {
    return std::chrono::duration<double, std::micro>(time).count();
}

void print_result(std::vector<steady_clock::duration>* times, steady_clock::duration whole) {
    std::sort(times->begin(), times->end());
    const size_t count = times->size();
    printf("{\"qps\": %.0f, \"p50_us\": %.2f, \"p99_us\": %.2f}\n",
           static_cast<double>(count) * 1e6 / microseconds(whole),
           microseconds((*times)[count / 2]), microseconds((*times)[count * 99 / 100]));
}

struct client {
    unique_fd fd;
    std::vector<steady_clock::duration> times;
    bool answered = true;
};

void ask_all(client* one, int id) {
    request question;
    snprintf(question.query, sizeof(question.query), "method=gw.config.get&id=%d", id);
    auto before = steady_clock::now();
    for (auto& time : one->times) {
        question.cookie++;
        if (!ask(one->fd.get(), &question)) {
            perror("udp_client: no answer");
            one->answered = false;
            return;
        }
        const auto after = steady_clock::now();
        time = after - before;
        before = after;
    }
}

bool prepare(std::vector<client>* clients, uint16_t port, size_t count) {
    for (client& one : *clients) {
        one.fd.reset(connect_to(port));
        one.times.resize(std::max<size_t>(count / clients->size(), 1));
        if (!one.fd) {
            perror("udp_client");
            return false;
        }
    }
    return true;
}

int measure(std::vector<client>* clients, int id) {
    std::vector<std::thread> threads;
    const auto start = steady_clock::now();
    for (client& one : *clients) {
        threads.emplace_back(ask_all, &one, id);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const auto whole = steady_clock::now() - start;
    std::vector<steady_clock::duration> times;
    for (const client& one : *clients) {
        if (!one.answered) {
            return 1;
        }
        times.insert(times.end(), one.times.begin(), one.times.end());
    }
    print_result(&times, whole);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const int port = argc > 2 ? to_int(argv[1]) : 0;
    const int count = argc > 2 ? to_int(argv[2]) : 0;
    const int number = argc > 3 ? to_int(argv[3]) : 1;
    const int id = argc > 4 ? to_int(argv[4]) : CLOUD_MODE;
    if (port <= 0 || port > UINT16_MAX || count <= 0 || number <= 0 || number > MAX_CLIENTS) {
        fprintf(stderr, "usage: udp_client PORT COUNT [CLIENTS [ID]]\n");
        return 2;
    }
    std::vector<client> clients(static_cast<size_t>(number));
    if (!prepare(&clients, static_cast<uint16_t>(port), static_cast<size_t>(count))) {
        return 1;
    }
    return measure(&clients, id);
}
