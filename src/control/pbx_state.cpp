// SPDX-License-Identifier: Apache-2.0
#include "control/pbx_state.h"

#include <json-c/json.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "base/json.h"
#include "base/result.h"
#include "base/text.h"
#include "cloud/pbx.h"
#include "config/ini.h"
#include "config/settings.h"
#include "control/query.h"
#include "log/tb_log.h"
#include "net/http.h"

namespace {

constexpr size_t QUERY_TEXT_SIZE = REQUEST_SIZE - REQUEST_HEADER + 1;
constexpr size_t CURSOR_SIZE = 16;
constexpr size_t JOIN_PREFIX_SIZE = 16;
constexpr size_t EXTENSIONS_SIZE = ANSWER_SIZE;  // any that an answer can hold
constexpr size_t SIP_TEXT_SIZE = 256;

json_ptr new_reply() {
    json_ptr reply(json_object_new_object());
    add_json_text(reply.get(), "result", "ok");
    json_object_object_add(reply.get(), "code", json_object_new_int(0));
    return reply;
}

// False when the reply would not fit into its datagram: a part of it would be no JSON.
bool send_json(const boa_request& request, const json_ptr& reply) {
    const std::string_view text = json_object_to_json_string(reply.get());
    if (text.size() > REPLY_BODY) {
        log_err(__func__, __LINE__, "reply has %zu characters, at most %zu, not sent", text.size(),
                REPLY_BODY);
        send_result(request, ERR_TOO_LONG);
        return false;
    }
    send_reply(request, text);
    return true;
}

void store(const char* key, const char* value) {
    ini_set(SETTINGS_FILE, "Config", key, value);  // in effect in memory all the same
}

// Keeps whole copies of the SIP account in memory and in the settings file.
void cache_account(const char* user, const char* server) {
    pluginmgr_config.quorvel_sipuser = heap_text(user);
    pluginmgr_config.quorvel_sipserver = heap_text(server);
    store("quorvel_sipuser", user);
    store("quorvel_sipserver", server);
}

void drop_account() {
    pluginmgr_config.quorvel_sipuser.reset();
    pluginmgr_config.quorvel_sipserver.reset();
    store("quorvel_sipuser", "");
    store("quorvel_sipserver", "");
}

// The text of a member, borrowed; empty when there is none.
const char* member_text(const json_ptr& object, const char* key) {
    const char* text = json_object_get_string(json_member(object.get(), key));
    return text == nullptr ? "" : text;
}

json_ptr read_pbx_file(const char* path) {
    json_ptr file = parse_json_file(path);
    if (file == nullptr) {
        log_unreadable(__func__, __LINE__, path);
    }
    return file;
}

// What the state query collects on its way to the reply.
struct pbx_state {
    const char* registered = "false";  // 80031: an access token is held
    const char* reachable = "false";   // 80032: the service reports a SIP address
    char user[SIP_TEXT_SIZE] = {};
    char server[SIP_TEXT_SIZE] = {};
    int status = -1;
};

// The account from its file, or else the cached one; false when neither is there.
bool find_account(pbx_state* state) {
    const json_ptr file = read_pbx_file(PBX_CONFIG_FILE);
    if (file != nullptr) {
        (void)get_param_from_json_resp(file.get(), "user", state->user, sizeof state->user);
        (void)get_param_from_json_resp(file.get(), "server", state->server, sizeof state->server);
        return true;
    }
    if (!pluginmgr_config.quorvel_sipuser) {
        return false;
    }
    set_text(state->user, pluginmgr_config.quorvel_sipuser.get());
    if (pluginmgr_config.quorvel_sipserver) {
        set_text(state->server, pluginmgr_config.quorvel_sipserver.get());
    }
    return true;
}

// The service has answered: its status document goes into the reply.
void take_status(pbx_state* state, const json_ptr& reply, json_ptr status) {
    if (!pluginmgr_config.quorvel_sipuser) {
        cache_account(state->user, state->server);
    }
    char address[SIP_TEXT_SIZE] = {};
    (void)get_param_from_json_resp(status.get(), "address", address, sizeof address);
    if (!is_empty(address)) {
        state->reachable = "true";
    }
    json_object_object_add(reply.get(), "sip_status", status.release());
}

// The service no longer accepts the token. The cached account stays until a new activation.
void forget_token(pbx_state* state) {
    state->registered = "false";
    set_text(pluginmgr_config.quorvel_token, "");
    store("quorvel_token", "");
    set_text(state->user, "");
    set_text(state->server, "");
}

int check_qr_code(const boa_request& request) {
    const auto value = query_value(request.query(), "active_toekn=");  // spelt so by the pages
    if (!value) {
        return ERR_NO_QR_TOKEN;
    }
    char token[QUERY_TEXT_SIZE] = {};
    set_text(token, *value);
    return quorvel_check_qr_active_status(token);
}

void send_qr_code(const boa_request& request) {
    char token[PBX_QR_TOKEN_SIZE] = {};
    const int code = quorvel_active_qr(token);
    const json_ptr quoted(json_object_new_string(token));
    constexpr int flags = JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE;
    char body[160] = {};
    format_text(body, "{\"result\":\"%s\",\"code\":%d,\"active_token\":%s, \"qr_png\":\"%s\"}",
                result_word(code), code, json_object_to_json_string_ext(quoted.get(), flags),
                code == 0 ? "qvrkqqr.png" : "");
    send_reply(request, body);
}

// The SIP password is handed to the web page once and not kept on disk afterwards.
void send_config(const boa_request& request) {
    const int code = quorvel_get_kq_config();
    if (code != 0) {
        send_result(request, code);
        return;
    }
    const json_ptr reply = new_reply();
    const json_ptr config = read_pbx_file(PBX_CONFIG_FILE);
    if (config != nullptr) {
        json_object_object_add(reply.get(), "config", json_object_get(config.get()));
        cache_account(member_text(config, "user"), member_text(config, "server"));
    }
    const bool sent = send_json(request, reply);
    if (sent && json_object_is_type(config.get(), json_type_object)) {
        json_object_object_del(config.get(), "password");
        // On a full disk in place, which takes no more room: the password must go.
        if (save_pbx_file(PBX_CONFIG_FILE, config.get()) != 0) {
            (void)replace_file(PBX_CONFIG_FILE, json_object_to_json_string_ext(
                                                    config.get(), JSON_C_TO_STRING_PLAIN));
        }
    }
}

}  // namespace

void answer_pbx_state(const boa_request& request) {
    pbx_state state;
    if (!is_empty(pluginmgr_config.quorvel_token)) {
        state.registered = "true";
        if (find_account(&state)) {
            state.status = quorvel_get_kq_sipstatus();
        }
    }
    const json_ptr reply = new_reply();
    add_json_text(reply.get(), "id80035", pluginmgr_config.quorvel_service);
    json_ptr status = read_pbx_file(PBX_STATUS_FILE);
    if (state.status == 0 && status != nullptr) {
        take_status(&state, reply, std::move(status));
    } else if (state.status == PBX_TOKEN_REFUSED) {
        forget_token(&state);
    }
    add_json_text(reply.get(), "id80031", state.registered);
    add_json_text(reply.get(), "id80032", state.reachable);
    add_json_text(reply.get(), "id80033", state.user);
    add_json_text(reply.get(), "id80034", state.server);
    (void)send_json(request, reply);
}

void answer_pbx_extensions(const boa_request& request) {
    char cursor[CURSOR_SIZE] = {};
    char extensions[EXTENSIONS_SIZE] = {};
    char join_prefix[JOIN_PREFIX_SIZE] = {};
    set_text(cursor, query_value(request.query(), "next=").value_or(""));
    const int code = quorvel_get_kq_extensions(cursor, extensions, sizeof extensions, join_prefix,
                                               sizeof join_prefix);
    if (code != 0) {
        send_result(request, code);
        return;
    }
    const json_ptr reply = new_reply();
    add_json_text(reply.get(), "extensions", extensions);
    add_json_text(reply.get(), "join_prefix", join_prefix);
    (void)send_json(request, reply);
}

void activate_pbx(const boa_request& request, std::string_view vcode) {
    char text[QUERY_TEXT_SIZE] = {};
    set_text(text, vcode);
    const int code = quorvel_active(text);
    if (code == 0) {
        (void)unlink(PBX_CONFIG_FILE);  // it may not be there
        if (pluginmgr_config.quorvel_sipuser) {
            drop_account();
        }
    }
    send_result(request, code);
}

void act_on_pbx(const boa_request& request, std::string_view action) {
    if (action == "check_kq_qrcode") {
        send_result(request, check_qr_code(request));
    } else if (action == "get_kq_qrcode") {
        send_qr_code(request);
    } else if (action == "get_kq_config") {
        send_config(request);
    }
}
