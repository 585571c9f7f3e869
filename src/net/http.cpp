// SPDX-License-Identifier: Apache-2.0
#include "net/http.h"

#include <json-c/json.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/handles.h"
#include "base/result.h"
#include "base/text.h"
#include "codec/encode.h"
#include "config/settings.h"
#include "log/tb_log.h"
#include "net/socket_io.h"

https_conn api_connection;
https_conn accounts_connection;
pthread_mutex_t api_connection_lock = PTHREAD_MUTEX_INITIALIZER;

namespace {

constexpr int ANSWER_SECONDS = 10;
constexpr size_t MIN_TOKEN = 2;
constexpr size_t MIN_CREDENTIAL = 2;  // shorter ones are not sent
constexpr size_t CODE_SIZE = 16;
constexpr size_t NUMBER_SIZE = 24;  // any 64-bit number in decimal
constexpr std::string_view HEADER_END = "\r\n\r\n";

// The ways of authorisation, told apart by the beginning of their names.
static_assert(sizeof settings::login_token / 3 * 4 == CREDENTIAL_SIZE);  // its last byte: a colon
struct credential_kind {
    const char* name;
    const char* secret;
    const char* suffix;
    size_t min_secret;
};
constexpr credential_kind CREDENTIALS[] = {
    {"KEY", pluginmgr_config.device_key, ":x-auth-device", 0},
    {"TOKEN", pluginmgr_config.active_token, ":", MIN_TOKEN},
    {"pass_TOKEN", pluginmgr_config.login_token, ":", 0},  // an empty one is sent too
};

void encode_credential(const char* auth, char* out) {
    for (const credential_kind& kind : CREDENTIALS) {
        if (!has_prefix(auth, kind.name)) {
            continue;
        }
        if (strlen(kind.secret) < kind.min_secret) {
            log_msg(LOG_API, LEVEL_PROGRESS, "construct_request", __LINE__,
                    "active_token doesn't config");
            return;
        }
        char plain[CREDENTIAL_SIZE] = {};
        format_text(plain, "%s%s", kind.secret, kind.suffix);
        base64_encode(plain, strlen(plain), out, CREDENTIAL_SIZE);
        return;
    }
}

// Where a body begins: behind the header, or at the start of an answer that has none.
std::string_view split_answer(std::string_view answer, char* header) {
    const size_t end = answer.find(HEADER_END);
    if (end == std::string_view::npos) {
        return answer;
    }
    if (header != nullptr) {
        copy_text(header, ANSWER_HEADER_SIZE, answer.substr(0, end));
    }
    return answer.substr(end + HEADER_END.size());
}

void drop_answer(int count, json_ptr* json) {
    constexpr const char* name = "https_handle_request_save_header";
    log_err(name, __LINE__, "recv response(%d) is too long", count);
    log_msg(LOG_API, LEVEL_TRACE, name, __LINE__,
            "*********recv response(%d) too long, drop it*********", count);
    if (json != nullptr) {
        json->reset();
    }
}

// From the received answer (count bytes, terminated) to its header, JSON and file.
void take_answer(const char* answer, size_t count, FILE* file, json_ptr* json, char* header) {
    constexpr const char* name = "https_handle_request_save_header";
    log_msg(LOG_API, LEVEL_TRACE, name, __LINE__, "*********recv response*********");
    log_secret(LOG_API, LEVEL_TRACE, name, __LINE__, {answer, count});
    const std::string_view body = split_answer({answer, count}, header);
    if (json != nullptr) {
        *json = parse_json(body.data());
        if (*json == nullptr) {
            log_err(name, __LINE__, "parse response failed, isn't json format");
        }
    }
    if (file != nullptr) {
        (void)fwrite(body.data(), 1, body.size(), file);
        (void)fflush(file);  // a full disk shows to the reader of the file
    }
}

// The two public ways to a request differ in what their log lines say.
struct request_style {
    const char* name;
    bool shows_pid;
};
constexpr request_style ON_ANY_CONNECTION = {"new_https_request_2", true};
constexpr request_style ON_API_CONNECTION = {"https_request", false};

int open_connection(https_conn* conn, const char* url, const request_style& style) {
    if (style.shows_pid) {
        log_msg(LOG_API, LEVEL_PROGRESS, style.name, __LINE__, "%d start connect https....",
                getpid());
    } else {
        log_msg(LOG_API, LEVEL_PROGRESS, style.name, __LINE__, "start connect https....");
    }
    const int code = connect_https(conn, url);
    if (code != 0) {
        log_err(style.name, __LINE__, "failed connect https!");
    }
    return code;
}

// The keep-alive rule: an open connection is used again unless its server has closed it.
bool is_reusable(https_conn* conn, const char* name) {
    if (conn->socket == -1) {
        return false;
    }
    log_msg(LOG_API, LEVEL_TRACE, name, __LINE__, "check https connection....");
    const peer_state peer = https_peer_state(*conn);
    if (peer == peer_state::unknown) {
        log_msg(LOG_API, LEVEL_PROGRESS, name, __LINE__, "check https connection fail....");
    }
    if (peer != peer_state::closed) {
        return true;
    }
    close_https(conn);
    log_msg(LOG_API, LEVEL_PROGRESS, name, __LINE__, "reconnect https....");
    return false;
}

int request_on(https_conn* conn, const char* url, const char* request, const char* body_file,
               json_ptr* json, const request_style& style) {
    // Repeats while a reused connection fails without being closed (a body file that cannot be
    // created); kept so.
    for (;;) {
        const bool fresh = !is_reusable(conn, style.name);
        const int code = fresh ? open_connection(conn, url, style) : 0;
        if (code != 0) {
            return code;
        }
        const int result = https_handle_request(conn, request, body_file, json);
        if (result == 0 || fresh) {
            return result;
        }
    }
}

json_object* first_device(json_object* json) {
    json_object* devices = json_member(json, "devices");
    if (!json_object_is_type(devices, json_type_array)) {
        return nullptr;
    }
    json_object* device = json_object_array_get_idx(devices, 0);
    if (device == nullptr) {
        log_msg(LOG_API, LEVEL_PROGRESS, "get_param_from_json_resp", __LINE__,
                "WARNING!!! Not find this device in cloud platform");
    }
    return device;
}

// The value of an answer, also of the first of its devices, borrowed; null when it is not there.
json_object* find_value(json_object* json, const char* key) {
    if (!json_object_is_type(json, json_type_object)) {
        return nullptr;
    }
    json_object* value = json_member(json, key);
    return value != nullptr ? value : json_member(first_device(json), key);
}

}  // namespace

void check_api_connection() {
    if (pthread_mutex_trylock(&api_connection_lock) == 0) {
        (void)check_https_conn(&api_connection);  // a closed one is opened by the next request
        pthread_mutex_unlock(&api_connection_lock);
    }
}

std::string construct_request(const char* method, const char* path, const char* body,
                              const char* auth) {
    char credential[2 * CREDENTIAL_SIZE] = {};
    encode_credential(auth, credential);
    const bool sends_it = strlen(credential) >= MIN_CREDENTIAL;
    char length[NUMBER_SIZE] = {};
    format_text(length, "%zu", body == nullptr ? 0 : strlen(body));
    return joined({
        method,
        " ",
        one_line(path),
        " HTTP/1.1\nHost: ",
        one_line(text_of(pluginmgr_config.api_server)),
        sends_it ? "\nAuthorization: Basic " : "",
        sends_it ? credential : "",
        "\nUser-Agent:Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)\n",
        has_prefix(method, "GET")
            ? "Accept: */*\nAccept-Language: zh-cn\nAccept-Encoding: gzip, deflate\n"
            : "Content-Type:application/x-www-form-urlencoded\n",
        "Connection: keep-alive\r\n",
        body == nullptr ? "" : "Content-Length: ",
        body == nullptr ? "" : length,
        body == nullptr ? "\r\n" : "\r\n\r\n",
        body == nullptr ? "" : body,
    });
}

int https_handle_request_save_header(https_conn* conn, const char* request, const char* body_file,
                                     json_ptr* json, char* header) {
    if (conn->socket == -1) {
        log_err(__func__, __LINE__, "https doesn't connected");
        return ERR_NOT_CONNECTED;
    }
    log_msg(LOG_API, LEVEL_TRACE, __func__, __LINE__, "*********send request*********");
    log_secret(LOG_API, LEVEL_TRACE, __func__, __LINE__, request);
    if (send_https_str(conn, request) != 0) {
        log_err(__func__, __LINE__, "send_https fail");
        close_https(conn);
        return ERR_SEND;
    }
    file_ptr file;
    if (body_file != nullptr) {
        file.reset(fopen(body_file, "w+e"));
        if (file == nullptr) {
            log_err(__func__, __LINE__, "create file error: %s", strerror(errno));
            return ERR_RECEIVE;
        }
    }
    char answer[ANSWER_SIZE + 1] = {};
    const int count = recv_https(conn, answer, ANSWER_SIZE, ANSWER_SECONDS, nullptr);
    if (count < 1) {
        log_err(__func__, __LINE__, "%d recv_https fail", getpid());
        close_https(conn);
        return ERR_RECEIVE;
    }
    if (static_cast<size_t>(count) >= ANSWER_SIZE) {
        drop_answer(count, json);
    } else {
        take_answer(answer, static_cast<size_t>(count), file.get(), json, header);
    }
    return 0;
}

int https_handle_request(https_conn* conn, const char* request, const char* body_file,
                         json_ptr* json) {
    return https_handle_request_save_header(conn, request, body_file, json, nullptr);
}

int new_https_request_2(https_conn* conn, const char* url, const char* request,
                        const char* body_file, json_ptr* json) {
    return request_on(conn == nullptr ? &api_connection : conn, url, request, body_file, json,
                      ON_ANY_CONNECTION);
}

int https_request(const char* url, const char* request, const char* body_file, json_ptr* json) {
    const client_lock held;
    return request_on(&api_connection, url, request, body_file, json, ON_API_CONNECTION);
}

int get_param_from_json_resp(json_object* json, const char* key, char* out, size_t size) {
    const char* text = json_object_get_string(find_value(json, key));
    if (text == nullptr) {
        return FAILED;
    }
    const size_t length = strlen(text);
    if (length >= size) {
        log_err(__func__, __LINE__, "%s in an answer has %zu characters, at most %zu, not taken",
                key, length, size - 1);
        return ERR_TOO_LONG;
    }
    copy_text(out, size, text);
    return 0;
}

int get_response_code_from_json_resp(json_object* json) {
    char code[CODE_SIZE] = {};
    const char* text = json_object_get_string(find_value(json, "code"));
    set_text(code, text == nullptr ? "" : text);  // what follows its number is not looked at
    if (is_empty(code)) {
        return ERR_NO_CODE;
    }
    const char* message = json_object_get_string(json_member(json, "message"));
    log_msg(LOG_API, LEVEL_PROGRESS, __func__, __LINE__, "response code:%s, message:%s", code,
            message == nullptr ? "" : message);
    return begins_with_number(code) ? to_int(code) : ERR_NO_CODE;
}
