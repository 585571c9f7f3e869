// SPDX-License-Identifier: Apache-2.0
#include "net/transfer.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/handles.h"
#include "base/result.h"
#include "base/text.h"
#include "device/url.h"
#include "log/tb_log.h"
#include "net/dns.h"
#include "net/socket_io.h"
#include "net/transport.h"

namespace {

constexpr size_t HOST_SIZE = 256;
constexpr size_t PATH_SIZE = 1024;
constexpr size_t REQUEST_SIZE = 2048;
constexpr size_t POST_HEADER_SIZE = 1024;
constexpr int LINGER_SECONDS = 2;
constexpr int LINGER_READS = 16;
constexpr size_t CHUNK_SIZE = 1024;
constexpr size_t FILE_BUFFER_SIZE = 65536;
constexpr int DEFAULT_PORT = 443;
constexpr int WAIT_SECONDS = 1200;
constexpr int MAX_REDIRECTS = 3;  // followed before the one that is the last

// One download. The connection is secure's, or the plain socket when that is open.
struct download {
    const char* name;  // of the public function, for the log
    const char* url;
    const char* target;
    long long limit;  // bytes to be saved at most
    char host[HOST_SIZE] = {};
    char path[PATH_SIZE] = {};
    int port = DEFAULT_PORT;
    https_conn secure = {};
    unique_fd plain = {};
    char file_buffer[FILE_BUFFER_SIZE] = {};  // before file, which flushes it at its end
    file_ptr file = {};
};

int open_target(download& d) {
    d.file.reset(fopen(d.target, "we"));
    if (d.file == nullptr) {
        log_err(d.name, __LINE__, "open file %s error: %s", d.target, strerror(errno));
        return TRANSFER_NO_FILE;
    }
    (void)setvbuf(d.file.get(), d.file_buffer, _IOFBF, sizeof d.file_buffer);  // speed only
    return 0;
}

void split_target(download& d) {
    split_url(d.url, d.host, d.path, &d.port, sizeof d.host, sizeof d.path);
    set_text(d.host, one_line(d.host));
    set_text(d.path, one_line(d.path));
}

int send_request(download& d, const char* request) {
    return d.plain ? send_http_str(d.plain.get(), request) : send_https_str(&d.secure, request);
}

int receive_answer(download& d, char* buffer) {
    if (d.plain) {
        return recv_http(d.plain.get(), buffer, REQUEST_SIZE, WAIT_SECONDS, d.file.get(), d.limit);
    }
    return recv_https(&d.secure, buffer, REQUEST_SIZE, WAIT_SECONDS, d.file.get(), d.limit);
}

// Requests until something else than a redirect comes. 0 or a TRANSFER code.
int fetch(download& d) {
    char buffer[REQUEST_SIZE + 1] = {};
    for (int redirects = 0;; redirects++) {
        format_into(buffer, REQUEST_SIZE,
                    "GET %s HTTP/1.0\r\nHost: %s\r\nConnection: Keep-Alive\r\nAccept: */*\r\n\r\n",
                    d.path, d.host);
        log_msg(LOG_API, LEVEL_TRACE, d.name, __LINE__, "*********send request*********");
        log_msg(LOG_API, LEVEL_TRACE, d.name, __LINE__, "%s", buffer);
        if (send_request(d, buffer) != 0) {
            return TRANSFER_NOT_SENT;
        }
        const int result = receive_answer(d, buffer);
        if (result > 0) {
            log_msg(LOG_API, LEVEL_PROGRESS, d.name, __LINE__, "download %s to %s size %d", d.url,
                    d.target, result);
        }
        if (result != GOT_REDIRECT) {
            return 0;  // nothing received as well: the file's size tells
        }
        if (redirects > MAX_REDIRECTS) {
            log_msg(LOG_API, LEVEL_PROGRESS, d.name, __LINE__,
                    "got 302 redirect, redirect_times = %d, drops", redirects);
            return TRANSFER_NO_HOST;
        }
        set_text(d.path, one_line(buffer));  // a redirect without a location leaves its lines
        log_msg(LOG_API, LEVEL_PROGRESS, d.name, __LINE__, "got 302 redirect, try get %s", d.path);
    }
}

int open_upload(const char* file, file_ptr* stream, long long* size) {
    struct stat info = {};
    if (stat(file, &info) != 0) {
        log_err("https_post_file", __LINE__, "file %s not exist", file);
        return FAILED;
    }
    stream->reset(fopen(file, "re"));
    if (*stream == nullptr) {
        log_err("https_post_file", __LINE__, "open file %s error: %s", file, strerror(errno));
        return FAILED;
    }
    *size = info.st_size;
    return 0;
}

int send_post_header(https_conn* conn, const char* host, const char* path, const char* file,
                     long long size) {
    char header[POST_HEADER_SIZE] = {};
    // The bare line feed of the third line is meant.
    const bool whole =
        format_text(header,
                    "%s %s HTTP/1.1\r\n"
                    "Host: %s\r\n"
                    "User-Agent: Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)\n"
                    "Content-Length: %lld\r\n"
                    "Connection: close\r\n"
                    "\r\n",
                    "POST", path, host, size);
    log_msg(LOG_API, LEVEL_TRACE, "https_post_file", __LINE__, "upload filename %s size %lld\n%s",
            file, size, header);
    if (!whole || send_https_str(conn, header) != 0) {
        log_err("https_post_file", __LINE__, "send_https fail");
        return FAILED;
    }
    return 0;
}

int upload(https_conn* conn, const char* host, const char* path, const char* file) {
    file_ptr stream;
    long long size = 0;
    if (open_upload(file, &stream, &size) != 0 ||
        send_post_header(conn, host, path, file, size) != 0) {
        return FAILED;
    }
    char chunk[CHUNK_SIZE] = {};
    for (long long left = size; left > 0;) {  // what was announced, however the file changes
        const auto wanted = std::min<size_t>(sizeof chunk, static_cast<size_t>(left));
        const size_t count = fread(chunk, 1, wanted, stream.get());
        if (count == 0 || send_https_buf(conn, chunk, count) != 0) {
            return FAILED;
        }
        left -= static_cast<long long>(count);
    }
    // Closing with something unread, a session ticket for one, would reset the connection and
    // take what is still on its way with it. The peer is given a moment to close first.
    end_sending(conn);
    char unread[CHUNK_SIZE] = {};
    for (int reads = 0; reads < LINGER_READS; reads++) {
        if (wait_readable(conn->socket, LINGER_SECONDS) != 0 ||
            recv(conn->socket, unread, sizeof unread, 0) <= 0) {
            break;
        }
    }
    return 0;
}

}  // namespace

bool wget_may_fetch(const char* url) {
    return !tls_is_verified() || has_prefix(url, "http://");
}

int download_file(const char* url, const char* target, long long limit) {
    if (has_prefix(url, "http://")) {
        return http_get_file(url, target, limit);
    }
    if (has_prefix(url, "https://")) {
        return https_get_file(url, target, limit);
    }
    return TRANSFER_NO_FILE;
}

int http_get_file(const char* url, const char* target, long long limit) {
    download d = {.name = __func__, .url = url, .target = target, .limit = limit};
    const int code = open_target(d);
    if (code != 0) {
        return code;
    }
    split_target(d);
    char address[IPV4_TEXT_SIZE] = {};
    if (dns_lookup(d.host, &address) != 0) {
        return TRANSFER_NO_HOST;
    }
    d.plain.reset(connect_http(address, d.port));
    return d.plain ? fetch(d) : TRANSFER_NO_CONNECT;
}

int https_get_file(const char* url, const char* target, long long limit) {
    download d = {.name = __func__, .url = url, .target = target, .limit = limit};
    const int code = open_target(d);
    if (code != 0) {
        return code;
    }
    if (connect_https(&d.secure, url) != 0) {
        log_err(__func__, __LINE__, "failed connect %s", url);
        return TRANSFER_NO_CONNECT;
    }
    split_target(d);
    const int result = fetch(d);
    close_https(&d.secure);
    return result;
}

int https_post_file(const char* host, const char* path, const char* file) {
    https_conn conn;
    const int code = connect_https(&conn, host);
    if (code != 0) {
        log_err(__func__, __LINE__, "failed connect %s", host);
        return code;
    }
    const int result = upload(&conn, host, path, file);
    close_https(&conn);
    return result;
}
