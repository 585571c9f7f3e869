// SPDX-License-Identifier: Apache-2.0
#include "client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "control/boa_protocol.h"

static_assert(MAX_QUERY == REQUEST_SIZE - REQUEST_HEADER);

namespace {

constexpr size_t COOKIE_AT = 8;
constexpr size_t REMOTE_IP_AT = 12;
constexpr size_t NUM_VARIABLE_AT = 16;

// The plug-in list: needs neither the cloud nor an agent, and changes nothing.
constexpr std::string_view MARKER_QUERY = "method=gw.config.get&id=80005";

// Seconds between two markers once a first answer has come. Shorter than the second for which a
// restart closes the port at least, so that none goes unseen.
constexpr double MARKER_INTERVAL = 0.5;

struct reply {
    uint32_t cookie = 0;
    std::string text;
};

uint32_t random_cookie() {
    uint32_t cookie = 0;
    if (getrandom(&cookie, sizeof cookie, 0) != static_cast<ssize_t>(sizeof cookie)) {
        cookie = static_cast<uint32_t>(seconds_now() * 1e6);
    }
    return cookie;
}

void put_word(char* datagram, size_t offset, uint32_t value) {
    memcpy(datagram + offset, &value, sizeof value);
}

bool send_request(const client& to, uint32_t cookie, std::string_view query) {
    char datagram[REQUEST_SIZE] = {};
    const auto separators = std::count(query.begin(), query.end(), '&');
    put_word(datagram, COOKIE_AT, cookie);
    put_word(datagram, REMOTE_IP_AT, INADDR_LOOPBACK);
    put_word(datagram, NUM_VARIABLE_AT, static_cast<uint32_t>(separators + 1));
    const size_t length = query.copy(datagram + REQUEST_HEADER, MAX_QUERY);
    return send(to.socket.get(), datagram, REQUEST_HEADER + length, 0) >= 0;
}

// ANSWERED with one reply in out, or REFUSED, or SILENT at the deadline.
ending next_reply(const client& from, double deadline, reply* out) {
    char datagram[REPLY_SIZE] = {};
    bool refused = false;
    for (;;) {
        pollfd wait = {from.socket.get(), POLLIN, 0};
        const double left = refused ? 0 : std::max(0.0, deadline - seconds_now());
        const int ready = poll(&wait, 1, static_cast<int>(left * 1000) + 1);
        if (ready == 0 || (ready < 0 && errno != EINTR)) {
            return refused ? ending::REFUSED : ending::SILENT;
        }
        if (ready < 0) {
            continue;
        }
        const ssize_t length = recv(from.socket.get(), datagram, sizeof datagram, MSG_DONTWAIT);
        if (length < 0 && errno == ECONNREFUSED) {
            // The refusal of a later datagram overtakes a reply that is here already.
            refused = true;
            continue;
        }
        if (length >= static_cast<ssize_t>(REQUEST_HEADER)) {
            memcpy(&out->cookie, datagram + COOKIE_AT, sizeof out->cookie);
            out->text.assign(datagram + REQUEST_HEADER,
                             static_cast<size_t>(length) - REQUEST_HEADER);
            return ending::ANSWERED;
        }
    }
}

}  // namespace

double seconds_now() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

bool open_client(client* to) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(CONTROL_PORT);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to->socket.reset(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return to->socket && connect(to->socket.get(), reinterpret_cast<const sockaddr*>(&address),
                                 sizeof address) == 0;
}

ending ask(const client& to, std::string_view query, double timeout, std::string* text) {
    const uint32_t cookie = random_cookie();
    const double deadline = seconds_now() + timeout;
    text->clear();
    if (!send_request(to, cookie, query)) {
        return ending::REFUSED;
    }
    reply answer;
    for (;;) {
        const ending end = next_reply(to, deadline, &answer);
        if (end != ending::ANSWERED) {
            return end;
        }
        if (answer.cookie == cookie) {
            *text = std::move(answer.text);
            return ending::ANSWERED;
        }
    }
}

ending ask_many(const client& to, std::string_view query, size_t expected, double timeout,
                std::vector<std::string>* texts) {
    const uint32_t cookie = random_cookie();
    const uint32_t marker = cookie + 1;
    double deadline = seconds_now() + timeout;
    if (!send_request(to, cookie, query) || !send_request(to, marker, MARKER_QUERY)) {
        return ending::REFUSED;
    }
    reply answer;
    for (;;) {
        const double wait =
            texts->empty() ? deadline : std::min(deadline, seconds_now() + MARKER_INTERVAL);
        const ending end = next_reply(to, wait, &answer);
        if (end == ending::SILENT && wait < deadline) {
            // A change of run mode ends the daemon after its answer, and the marker with it.
            if (!send_request(to, marker, MARKER_QUERY)) {
                return ending::REFUSED;
            }
        } else if (end != ending::ANSWERED) {
            return end;
        } else if (answer.cookie == cookie) {
            texts->push_back(std::move(answer.text));
            if (texts->size() == expected) {
                return ending::ANSWERED;
            }
            deadline = seconds_now() + timeout;
        } else if (answer.cookie == marker) {
            return ending::PASSED;
        }
    }
}
