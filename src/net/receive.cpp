// SPDX-License-Identifier: Apache-2.0
// The receive routines of transport.h: when is an answer complete, and where do its bytes go.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <iterator>
#include <string_view>

#include "base/text.h"
#include "log/tb_log.h"
#include "net/socket_io.h"
#include "net/transport.h"

namespace {

constexpr std::string_view LENGTH_NAME = "Content-Length";
constexpr std::string_view LOCATION_NAME = "Location";
constexpr std::string_view LINE_END = "\r\n";
constexpr std::string_view HEADER_END = "\r\n\r\n";
constexpr int FOUND = 302;
constexpr long LENGTH_UNKNOWN = -1;
constexpr long HEADER_OPEN = 0;      // not enough of the header is there to tell
constexpr long long MAX_WAITS = 10;  // the time of so many full waits is all an answer may take

// What differs between the two kinds of connection.
struct receive_kind {
    const char* function;
    const char* protocol;
    bool traced;  // time-outs and single reads are logged
};
constexpr receive_kind HTTPS_KIND = {"recv_https", "https", true};
constexpr receive_kind HTTP_KIND = {"recv_http", "http", false};

struct answer {
    const receive_kind& kind;
    net_stream stream;
    char* buffer = nullptr;
    size_t size = 0;
    int seconds = 0;
    FILE* file = nullptr;
    long long room = NO_LIMIT;  // bytes that file may still get
    long long end = deadline_in(MAX_WAITS * seconds);
    long total = 0;
    long expected = HEADER_OPEN;  // header and body
    bool overflow = false;        // the answer does not fit and overwrites the buffer
};

int received(const answer& a) {
    return static_cast<int>(std::min<long>(a.total, INT_MAX));
}

std::string_view held(const answer& a) {
    return {a.buffer, static_cast<size_t>(a.total)};
}

void save(answer& a, std::string_view bytes) {
    if (a.file != nullptr) {
        const auto count = static_cast<size_t>(std::min<long long>(a.room, std::ssize(bytes)));
        // A full disk shows in the file's size, by which the caller judges.
        (void)fwrite(bytes.data(), 1, count, a.file);
        a.room -= static_cast<long long>(count);
    }
}

long read_more(answer& a) {
    const bool whole = a.overflow;
    const size_t used = whole ? 0 : static_cast<size_t>(a.total);
    const bool traced = a.kind.traced && !whole;
    if (traced) {
        log_msg(LOG_API, LEVEL_TRACE, a.kind.function, __LINE__,
                "%d SSL_read --start ssl %p total %ld, buf_size %zu", getpid(),
                static_cast<void*>(a.stream.ssl), a.total, a.size);
    }
    const long count = read_stream(&a.stream, a.buffer + used, a.size - used);
    if (traced) {
        log_msg(LOG_API, LEVEL_TRACE, a.kind.function, __LINE__, "SSL_read data len %ld, err:%d",
                count == READ_AGAIN ? -1 : count, a.stream.error);
    }
    if (count > 0) {
        a.total += count;
        a.buffer[used + static_cast<size_t>(count)] = '\0';
        if (whole) {
            save(a, {a.buffer, static_cast<size_t>(count)});
            return a.room > 0 ? count : 0;  // as if nothing more came
        }
    }
    return count;
}

// Waits, then reads. What came may be no payload (a session ticket, a piece of a record): then
// another wait begins.
long wait_and_read(answer& a) {
    long long deadline = 0;
    for (bool pending = has_pending(a.stream); now_ms() <= a.end; pending = false) {
        deadline = std::min(deadline_in(a.seconds), a.end);
        if (!pending && wait_until(a.stream.socket, a.stream.events, deadline) != 0) {
            break;
        }
        log_msg(LOG_API, LEVEL_TRACE, a.kind.function, __LINE__, "Data is available now!!!");
        const long count = read_more(a);
        if (count != READ_AGAIN) {
            return count;
        }
    }
    if (a.kind.traced && now_ms() >= deadline) {
        log_msg(LOG_API, LEVEL_PROGRESS, a.kind.function, __LINE__, "%d recv https timeout",
                getpid());
    }
    return 0;
}

bool is_complete(const answer& a) {
    return a.expected == LENGTH_UNKNOWN || (a.expected != HEADER_OPEN && a.total >= a.expected);
}

// Reads on without waiting while the reads fill the buffer. The last result.
long drain(answer& a, long count) {
    while (a.overflow && count == static_cast<long>(a.size) && !is_complete(a) &&
           now_ms() <= a.end) {
        count = read_more(a);
    }
    return count;
}

// Bytes of the whole answer. A length that is no sensible number counts as none.
long announced_length(const answer& a) {
    const std::string_view text = held(a);
    const size_t name = text.find(LENGTH_NAME);
    if (name == std::string_view::npos) {
        return LENGTH_UNKNOWN;
    }
    const size_t end = text.find(HEADER_END);
    if (end == std::string_view::npos) {
        return text.size() < a.size ? HEADER_OPEN : LENGTH_UNKNOWN;
    }
    const size_t value = std::min(name + LENGTH_NAME.size() + 1, text.size());
    const long long body = to_int(text.substr(value));
    const long long whole = body + static_cast<long long>(end + HEADER_END.size());
    // Less a buffer, by which the last read may go beyond: the total stays an int.
    const long long most = INT_MAX - static_cast<long long>(a.size);
    return body < 0 || whole > most ? LENGTH_UNKNOWN : static_cast<long>(whole);
}

void save_body(answer& a) {
    const size_t end = held(a).find(HEADER_END);
    if (end != std::string_view::npos) {
        save(a, held(a).substr(end + HEADER_END.size()));
    }
}

// The answer will not fit: from here on it goes to the file as it comes.
long begin_overflow(answer& a) {
    save_body(a);
    a.overflow = true;
    const long count = drain(a, a.total);
    log_err(a.kind.function, __LINE__, "%s response(%ld) is too long, buf(%zu) is small, dump %d",
            a.kind.protocol, a.expected, a.size, static_cast<int>(a.overflow));
    return count;
}

// The rest of an answer that is given up may still come, and must not be taken for the next one.
int give_up(const answer& a) {
    if (a.total > 0) {
        (void)shutdown(a.stream.socket, SHUT_RDWR);
    }
    return received(a);
}

int receive(answer a) {
    while (!is_complete(a)) {
        long count = drain(a, wait_and_read(a));
        if (count < 1 && count != READ_AGAIN) {
            return give_up(a);
        }
        if (a.expected == HEADER_OPEN) {
            if (check_http_redirect(a.buffer) == 0) {
                return GOT_REDIRECT;
            }
            a.expected = announced_length(a);
            if (a.expected != HEADER_OPEN) {
                log_msg(LOG_API, LEVEL_PROGRESS, a.kind.function, __LINE__,
                        "response Content-Length and http header %ld", a.expected);
            }
            if (a.expected > static_cast<long>(a.size)) {
                count = begin_overflow(a);
            }
            if (count < 1 && count != READ_AGAIN) {
                return give_up(a);
            }
        }
    }
    log_msg(LOG_API, LEVEL_PROGRESS, a.kind.function, __LINE__,
            "totol:%ld content_len:%ld buf_size:%zu dump:%d", a.total, a.expected, a.size,
            static_cast<int>(a.overflow));
    if (!a.overflow) {
        save_body(a);
    }
    return received(a);
}

}  // namespace

int recv_https(https_conn* conn, char* buffer, size_t size, int seconds, FILE* file,
               long long limit) {
    if (conn->ssl == nullptr) {
        return 0;
    }
    return receive({.kind = HTTPS_KIND,
                    .stream = {.socket = conn->socket, .ssl = conn->ssl},
                    .buffer = buffer,
                    .size = size,
                    .seconds = seconds,
                    .file = file,
                    .room = limit});
}

int recv_http(int socket, char* buffer, size_t size, int seconds, FILE* file, long long limit) {
    return receive({.kind = HTTP_KIND,
                    .stream = {.socket = socket},
                    .buffer = buffer,
                    .size = size,
                    .seconds = seconds,
                    .file = file,
                    .room = limit});
}

int check_http_redirect(char* text) {
    const std::string_view all(text);
    const size_t blank = all.find(' ');
    if (!all.starts_with("HTTP") || blank == std::string_view::npos) {
        return -1;
    }
    if (to_int(all.substr(blank + 1)) != FOUND) {
        return 1;
    }
    const size_t name = all.find(LOCATION_NAME);
    if (name == std::string_view::npos) {
        return 0;
    }
    size_t start = std::min(name + LOCATION_NAME.size() + 1, all.size());
    if (start < all.size() && all[start] == ' ') {
        start++;
    }
    const size_t end = all.find(LINE_END, start);
    if (end == std::string_view::npos) {
        return 1;
    }
    const std::string_view location = all.substr(start, end - start);
    copy_text(text, location.size() + 1, location);
    return 0;
}
