// SPDX-License-Identifier: Apache-2.0
#include "cloud/pbx.h"

#include <json-c/json.h>
#include <strings.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <iterator>
#include <string>
#include <string_view>

#include "base/file.h"
#include "base/handles.h"
#include "base/json.h"
#include "base/result.h"
#include "base/text.h"
#include "cloud/events.h"
#include "codec/encode.h"
#include "codec/sha1.h"
#include "config/ini.h"
#include "config/settings.h"
#include "deployment.h"
#include "device/identity.h"
#include "log/tb_log.h"
#include "net/http.h"

namespace {

constexpr size_t SIGN_TEXT_SIZE = 256;
constexpr size_t PBX_REQUEST_SIZE = 4096;  // holds any code whole, escaped as JSON
constexpr const char* PBX_QR_FOLDER = "/tmp/web";
constexpr mode_t FILE_MODE = 0644;
constexpr std::string_view TOKEN_HEADER = "X-Kzt-Activetoken";
constexpr std::string_view LENGTH_HEADER = "Content-Length";
constexpr int STATUS_OK = 200;
constexpr int STATUS_REDIRECT = 300;  // the first that is no success

// What every request carries.
struct credentials {
    char mac[MAC_TEXT_SIZE] = {};
    char timestamp[24] = {};
    char sign[SIGNATURE_SIZE] = {};
};

// The key is the API signing key, as its characters, followed by the device id.
void sign_service_request(const char* text, const char* timestamp, char (&sign)[SIGNATURE_SIZE]) {
    const std::string key = joined({PLUGINMGR_API_SIGN_KEY, pluginmgr_config.device_id});
    const std::string message = joined({text, timestamp});
    uint8_t digest[SHA1_DIGEST_SIZE] = {};
    hmac_sha1(key.data(), key.size(), message.data(), message.size(), digest);
    hex_encode(digest, sizeof digest, sign, sizeof sign);
}

// Fills who for a request whose sign text is the MAC address and the parts; longer texts are cut.
int prepare(credentials* who, std::initializer_list<const char*> parts) {
    if (std::string_view(pluginmgr_config.quorvel_service) == "off") {
        return ERR_PBX_OFF;
    }
    format_text(who->timestamp, "%lld", static_cast<long long>(time(nullptr)));
    if (get_mac_text(&who->mac) != 0) {
        log_err(__func__, __LINE__, "cann't get device mac address");
        return ERR_NO_MAC;
    }
    char text[SIGN_TEXT_SIZE] = {};
    set_text(text, who->mac);
    for (const char* part : parts) {
        append_text(text, sizeof text, part);
    }
    sign_service_request(text, who->timestamp, who->sign);
    return 0;
}

// One exchange on a connection of its own.
int exchange(const char* request, const char* body_file, json_ptr* answer, char* header) {
    https_conn conn;
    const int connected = connect_https(&conn, pluginmgr_config.quorvel_server);
    if (connected != 0) {
        log_err(__func__, __LINE__, "connect_https fail");
        return connected;
    }
    const int result = https_handle_request_save_header(&conn, request, body_file, answer, header);
    close_https(&conn);
    return result;
}

json_ptr activation_body(const credentials& who, const char* vcode) {
    json_ptr body(json_object_new_object());
    add_json_text(body.get(), "mac", who.mac);
    add_json_text(body.get(), "device_type", pluginmgr_config.hw_revision);
    add_json_text(body.get(), "device_id", pluginmgr_config.device_id);
    if (vcode != nullptr) {
        add_json_text(body.get(), "vcode", vcode);
    }
    add_json_text(body.get(), "timestamp", who.timestamp);
    add_json_text(body.get(), "sign", who.sign);
    return body;
}

void build_post(char (&out)[PBX_REQUEST_SIZE], const char* path, const char* body) {
    format_text(out,
                "POST %s HTTP/1.1\r\n"
                "Host: %s\r\n"
                "User-Agent:Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)\r\n"
                "Accept: */*\r\n"
                "Content-Type:application/json\r\n"
                "Content-Length: %zu\r\n"
                "Connection: Close\r\n\r\n"
                "%s",
                path, one_line(text_of(pluginmgr_config.quorvel_server)).c_str(), strlen(body),
                body);
}

// One POST: path, its name in the log, the verification code and the file for the answer's body,
// each when there is one.
struct activation {
    const char* path;
    const char* name;
    const char* vcode;
    const char* body_file;
};

int ask_activation(const activation& what, json_ptr* answer, char* header) {
    credentials who;
    const int prepared = prepare(&who, {pluginmgr_config.hw_revision, pluginmgr_config.device_id,
                                        what.vcode == nullptr ? "" : what.vcode});
    if (prepared != 0) {
        return prepared;
    }
    const json_ptr body = activation_body(who, what.vcode);
    const char* text = json_object_to_json_string(body.get());
    if (log_shows_secrets()) {
        log_plain(LOG_API, LEVEL_NOTICE, " send %s request %s", what.name, text);
    } else {
        log_plain(LOG_API, LEVEL_NOTICE, " send %s request length %zu", what.name, strlen(text));
    }
    char request[PBX_REQUEST_SIZE] = {};
    build_post(request, what.path, text);
    return exchange(request, what.body_file, answer, header);
}

// One GET: path, the name of the query value that holds the token, what follows the signature.
struct read_request {
    const char* path;
    const char* token_name;
    const char* token;
    std::string more;
};

int read_service(const read_request& what, json_ptr* answer) {
    credentials who;
    const int prepared = prepare(&who, {what.token});
    if (prepared != 0) {
        return prepared;
    }
    char request[PBX_REQUEST_SIZE] = {};
    format_text(request,
                "GET %s?mac=%s&%s=%s&timestamp=%s&sign=%s%s HTTP/1.1\r\n"
                "Host: %s\r\n"
                "User-Agent:Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)\r\n"
                "Accept: */*\r\n"
                "Connection: Close\r\n\r\n",
                what.path, one_line(who.mac).c_str(), what.token_name, one_line(what.token).c_str(),
                who.timestamp, who.sign, one_line(what.more).c_str(),
                one_line(text_of(pluginmgr_config.quorvel_server)).c_str());
    return exchange(request, nullptr, answer, nullptr);
}

// A read whose result is the service's own code, logged under name.
int read_with_code(const char* name, const read_request& what, json_ptr* answer) {
    const int exchanged = read_service(what, answer);
    if (exchanged != 0) {
        return exchanged;
    }
    const int code = get_response_code_from_json_resp(answer->get());
    log_msg(LOG_API, LEVEL_NOTICE, name, __LINE__, "%s return code %d", name, code);
    return code;
}

// 0, or ERR_TOO_LONG with nothing changed. An answer without a token leaves the one that is there.
int store_access_token(json_object* answer) {
    if (get_param_from_json_resp(answer, "access_token", pluginmgr_config.quorvel_token,
                                 sizeof pluginmgr_config.quorvel_token) == ERR_TOO_LONG) {
        return ERR_TOO_LONG;
    }
    ini_set(SETTINGS_FILE, "Config", "quorvel_token", pluginmgr_config.quorvel_token);
    return 0;
}

// The object under key goes into file. saved is false when it could not.
int read_object(const char* name, const char* path, const char* key, const char* file,
                bool* saved) {
    json_ptr answer;
    const read_request what = {path, "token", pluginmgr_config.quorvel_token, ""};
    const int code = read_with_code(name, what, &answer);
    json_object* object = code == 0 ? json_member(answer.get(), key) : nullptr;
    *saved = !json_object_is_type(object, json_type_object) || save_pbx_file(file, object) == 0;
    return code;
}

// Behind a header's name and colon, and blanks, up to where its line or what is printable ends.
std::string_view header_value(std::string_view head, std::string_view name) {
    size_t at = 0;
    while ((at = head.find('\n', at)) != std::string_view::npos) {
        const std::string_view line = head.substr(++at);
        if (line.size() <= name.size() || line[name.size()] != ':' ||
            strncasecmp(line.data(), name.data(), name.size()) != 0) {
            continue;
        }
        const size_t start = std::min(line.find_first_not_of(' ', name.size() + 1), line.size());
        const std::string_view value = line.substr(start);
        const auto* end = std::ranges::find_if(value, [](char c) { return c < ' ' || c > '~'; });
        return value.substr(0, static_cast<size_t>(end - value.begin()));
    }
    return {};
}

// Whether the answer under this header is the image, whole.
int judge_image(std::string_view head, std::string_view image) {
    const size_t blank = std::min(head.find(' '), head.size());
    const int status = to_int(head.substr(blank));
    if (status < STATUS_OK || status >= STATUS_REDIRECT) {
        log_err("quorvel_active_qr", __LINE__, "no QR code, the answer has status %d", status);
        return status == 0 ? ERR_RECEIVE : ERR_PBX_REFUSED;
    }
    const int announced = to_int(header_value(head, LENGTH_HEADER));
    if (image.empty() || std::ssize(image) < announced) {
        log_err("quorvel_active_qr", __LINE__, "QR code of %zu bytes, announced are %d",
                image.size(), announced);
        return ERR_RECEIVE;
    }
    return 0;
}

// Asks for the image, which stays in memory until it is judged.
int ask_image(json_ptr* answer, char* header, std::string* image) {
    const unique_fd memory(memfd_create("qr", MFD_CLOEXEC));
    if (!memory) {
        log_err("quorvel_active_qr", __LINE__, "no memory for a QR code: %s", strerror(errno));
        return ERR_RECEIVE;
    }
    char path[32] = {};
    format_text(path, "/proc/self/fd/%d", memory.get());
    const int code =
        ask_activation({"/v1/ippbx/activatecode", "get active qr", nullptr, path}, answer, header);
    return code == 0 && read_open_file(memory.get(), ANSWER_SIZE, image) != 0 ? ERR_RECEIVE : code;
}

int take_image(std::string_view head, std::string_view image) {
    const int code = judge_image(head, image);
    if (code == 0 && !is_own_folder(PBX_QR_FOLDER)) {
        log_err("quorvel_active_qr", __LINE__, "%s not written: %s", PBX_QR_IMAGE,
                "its folder is missing or somebody else's");
        return ERR_RECEIVE;
    }
    if (code == 0 && publish_file(PBX_QR_IMAGE, image, FILE_MODE) != 0) {
        log_err("quorvel_active_qr", __LINE__, "%s not written: %s", PBX_QR_IMAGE, strerror(errno));
        return ERR_RECEIVE;
    }
    return code;
}

}  // namespace

int save_pbx_file(const char* path, json_object* object) {
    const char* text = json_object_to_json_string_ext(object, JSON_C_TO_STRING_PLAIN);
    if (text != nullptr && publish_file(path, text, FILE_MODE) == 0) {
        return 0;
    }
    log_err(__func__, __LINE__, "%s not written: %s", path, strerror(errno));
    return FAILED;
}

int quorvel_active_qr(char (&token)[PBX_QR_TOKEN_SIZE]) {
    char header[ANSWER_HEADER_SIZE] = {};
    json_ptr answer;
    std::string image;
    const int exchanged = ask_image(&answer, header, &image);
    if (exchanged != 0) {
        return exchanged;
    }
    if (answer != nullptr) {  // an error object in place of the image
        log_msg(LOG_API, LEVEL_NOTICE, __func__, __LINE__, "quorvel_active failed, code %d",
                get_response_code_from_json_resp(answer.get()));
        return ERR_PBX_REFUSED;
    }
    const int taken = take_image(text_of(header), image);
    const std::string_view sent = header_value(text_of(header), TOKEN_HEADER);
    if (taken == 0 && !sent.empty()) {
        set_text(token, sent);
    }
    return taken;
}

int quorvel_check_qr_active_status(const char* token) {
    json_ptr answer;
    // Its log line names the read of the configuration, which has the same words.
    const int code = read_with_code("quorvel_get_kq_config",
                                    {"/v1/ippbx/activatecode", "active_token", token, ""}, &answer);
    return code == 0 ? store_access_token(answer.get()) : code;
}

int quorvel_active(const char* vcode) {
    json_ptr answer;
    const int exchanged =
        ask_activation({"/v1/ippbx/activate", "active", vcode, nullptr}, &answer, nullptr);
    if (exchanged != 0) {
        return exchanged;
    }
    const int code = get_response_code_from_json_resp(answer.get());
    if (code != 0) {
        log_msg(LOG_API, LEVEL_NOTICE, __func__, __LINE__, "quorvel_active failed, code %d", code);
        set_text(pluginmgr_config.quorvel_token, "");
        return ERR_PBX_REFUSED;
    }
    return store_access_token(answer.get());
}

int quorvel_get_kq_config() {
    bool saved = false;  // or else the account of before holds
    return read_object(__func__, "/v1/ippbx/config", "sip_config", PBX_CONFIG_FILE, &saved);
}

int quorvel_get_kq_sipstatus() {
    bool saved = false;
    const int code =
        read_object(__func__, "/v1/ippbx/status", "sip_status", PBX_STATUS_FILE, &saved);
    if (!saved) {
        (void)unlink(PBX_STATUS_FILE);  // an earlier one must not pass for today's
    }
    return code;
}

int quorvel_get_kq_extensions(const char* start, char* extensions, size_t extensions_size,
                              char* join_prefix, size_t join_prefix_size) {
    json_ptr answer;
    const read_request what = {"/v1/ippbx/extensions", "token", pluginmgr_config.quorvel_token,
                               joined({"&start=", start, "&limit=100"})};
    const int code = read_with_code(__func__, what, &answer);
    if (code == 0) {
        // What the answer lacks stays empty.
        (void)get_param_from_json_resp(answer.get(), "extensions", extensions, extensions_size);
        (void)get_param_from_json_resp(answer.get(), "join_prefix", join_prefix, join_prefix_size);
    }
    return code;
}
