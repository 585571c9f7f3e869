// SPDX-License-Identifier: Apache-2.0
// udp_client PORT COUNT: asks for the cloud mode COUNT times as the web server does, one request
// at a time, and prints {"qps", "p50_us", "p99_us"}. An answer is whatever brings the request's
// number back, so an echo will do. Ends with 1 when an answer stays out for two seconds.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/handles.h"
#include "base/text.h"

namespace {

using std::chrono::steady_clock;

constexpr time_t ANSWER_SECONDS = 2;
constexpr uint32_t ECHO_MARKER = 0x8888;
constexpr size_t ANSWER_SIZE = 4096;

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
    char query[32] = "method=gw.config.get&id=80000";
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

int measure(int fd, size_t count) {
    std::vector<steady_clock::duration> times(count);
    request question;
    const auto start = steady_clock::now();
    auto before = start;
    for (auto& time : times) {
        question.cookie++;
        if (!ask(fd, &question)) {
            perror("udp_client: no answer");
            return 1;
        }
        const auto after = steady_clock::now();
        time = after - before;
        before = after;
    }
    print_result(&times, before - start);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const int port = argc == 3 ? to_int(argv[1]) : 0;
    const int count = argc == 3 ? to_int(argv[2]) : 0;
    if (port <= 0 || port > UINT16_MAX || count <= 0) {
        fprintf(stderr, "usage: udp_client PORT COUNT\n");
        return 2;
    }
    const unique_fd fd(connect_to(static_cast<uint16_t>(port)));
    if (!fd) {
        perror("udp_client");
        return 1;
    }
    return measure(fd.get(), static_cast<size_t>(count));
}
