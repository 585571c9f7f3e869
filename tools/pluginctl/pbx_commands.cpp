// SPDX-License-Identifier: Apache-2.0
#include <json-c/json.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#include "answers.h"
#include "base/json.h"
#include "base/result.h"
#include "base/text.h"
#include "cloud/pbx.h"
#include "commands.h"
#include "qr_image.h"
#include "safe_text.h"
#include "screen.h"
#include "secret.h"
#include "words.h"

namespace {

constexpr const char* STATE_QUERY = "method=gw.config.get&id=80031";
constexpr const char* QR_QUERY = "method=gw.app.action&quorvel_action=get_kq_qrcode";
constexpr const char* CONFIG_QUERY = "method=gw.app.action&quorvel_action=get_kq_config";
// The daemon spells the token's key so.
constexpr const char* SCAN_QUERY =
    "method=gw.app.action&quorvel_action=check_kq_qrcode&active_toekn=";

constexpr int DRAWS_PER_LOOK = 10;
constexpr useconds_t DRAW_PAUSE = 200000;  // microseconds

// A value of an action. The daemon looks its keys up anywhere in the text, so none may hide here.
bool is_sendable(const std::string& what, const std::string& value) {
    if (value.empty()) {
        complain("no %s given", what.c_str());
        return false;
    }
    if (value.find('=') != std::string::npos) {
        complain("the %s cannot contain '='", what.c_str());
        return false;
    }
    return can_carry("the " + what, value);
}

void print_members(json_object* object) {
    size_t width = 0;
    json_object_object_foreach(object, name, unused) {
        (void)unused;
        width = std::max(width, cells(name));
    }
    json_object_object_foreach(object, key, value) {
        (void)value;
        printf("%s%s  %s\n", printable(key).c_str(), std::string(width - cells(key), ' ').c_str(),
               field(object, key).c_str());
    }
}

// Draws the code, or tells where it lies.
void show_code() {
    gray_image image;
    const screen out = open_screen(false);
    const auto code = read_png(PBX_QR_IMAGE, &image) ? find_qr(image) : std::nullopt;
    const char* reason = "it is no QR code that could be drawn here";
    if (code && (!out.terminal || out.width >= code->size + 2 * QR_MARGIN)) {
        for (const std::string& line : draw_qr(*code, out.terminal)) {
            printf("%s\n", line.c_str());
        }
        return;
    }
    if (code) {
        reason = "this window is too narrow for it";
    }
    printf("The code is the image %s (%s).\n", PBX_QR_IMAGE, reason);
}

// Codes that no waiting changes.
bool is_final(int code) {
    return code == 0 || code == ERR_NO_MAC || code == ERR_PBX_OFF || code == ERR_NO_QR_TOKEN;
}

void pause_between_looks(screen* out) {
    for (int i = 0; i < DRAWS_PER_LOOK; i++) {
        show_state(out, "waiting for the scan", -1, 0);
        usleep(DRAW_PAUSE);
    }
}

// Asks the service until the code has been scanned or context.wait has passed.
int wait_for_scan(const command_context& context, const std::string& token) {
    const double deadline = seconds_now() + context.wait;
    screen out = open_screen(context.json);
    for (;;) {
        std::string reply;
        pause_between_looks(&out);
        const ending end = ask(context.daemon, SCAN_QUERY + token, context.timeout, &reply);
        if (end != ending::ANSWERED) {
            clear_screen_line(&out);
            return nobody(end);
        }
        const bool late = seconds_now() >= deadline;
        if (!is_final(code_of(reply)) && !late) {
            continue;
        }
        clear_screen_line(&out);
        if (context.json) {
            print_json(reply);
        }
        const int result = judge_code(reply);
        if (result != EXIT_DONE && late) {
            complain("not scanned in %.0f s; 'pluginctl pbx check' asks once more, token %s",
                     context.wait, printable(token).c_str());
        }
        return result;
    }
}

int report_activated(const command_context& context, int result) {
    if (result == EXIT_DONE && !context.json) {
        printf("activated; 'pluginctl pbx config' fetches the SIP account\n");
    }
    return result;
}

// One extension on a line, its members as they come.
void print_extension(json_object* entry) {
    std::string line;
    if (json_object_is_type(entry, json_type_object)) {
        json_object_object_foreach(entry, key, value) {
            (void)value;
            line += (line.empty() ? "" : "  ") + printable(key) + " " + field(entry, key);
        }
    } else {
        line = printable(json_object_get_string(entry));
    }
    printf("%s\n", line.c_str());
}

// A list of extensions; of one that has lost its end, what is whole.
json_ptr read_list(std::string text, bool* cut) {
    json_ptr list = parse_json(text.c_str());
    *cut = !list;
    while (!list) {
        const size_t end = text.rfind('}');
        if (end == std::string::npos) {
            break;
        }
        text.resize(end);
        list = parse_json((text + "}]").c_str());
    }
    return list;
}

int print_extensions(json_object* reply, int start) {
    json_object* text = json_member(reply, "extensions");
    bool cut = false;
    const json_ptr list = read_list(text == nullptr ? "" : json_object_get_string(text), &cut);
    const bool is_list = json_object_is_type(list.get(), json_type_array);
    const size_t count = is_list ? json_object_array_length(list.get()) : 0;
    for (size_t i = 0; i < count; i++) {
        print_extension(json_object_array_get_idx(list.get(), i));
    }
    printf("Join prefix  %s\n", field(reply, "join_prefix").c_str());
    if (!is_list) {
        complain("the service sent no list that can be read");
        return EXIT_NOT_DONE;
    }
    if (cut) {
        printf("There are more: 'pluginctl pbx extensions %zu'\n",
               static_cast<size_t>(start) + count);
    }
    return EXIT_DONE;
}

}  // namespace

int run_pbx_status(const command_context& context, arguments) {
    std::string reply;
    const int result = request(context, STATE_QUERY, &reply);
    if (result != EXIT_DONE || context.json) {
        return result;
    }
    const json_ptr value = parse_json(reply.c_str());
    json_object* top = value.get();
    const bool registered = field(top, "id80031") == "true";
    const bool reachable = field(top, "id80032") == "true";
    printf("Service     %s\n", field(top, "id80035").c_str());
    printf("Activated   %s\n", registered ? "yes" : "no");
    printf("SIP         %s%s\n", reachable ? "registered at " : "not registered",
           reachable ? field(json_member(top, "sip_status"), "address").c_str() : "");
    printf("SIP user    %s\n", field(top, "id80033").c_str());
    printf("SIP server  %s\n", field(top, "id80034").c_str());
    return EXIT_DONE;
}

int run_pbx_qr(const command_context& context, arguments) {
    std::string reply;
    int result = request(context, QR_QUERY, &reply);
    if (result != EXIT_DONE) {
        return result;
    }
    const std::string token = field(parse_json(reply.c_str()).get(), "active_token");
    if (!context.json) {
        show_code();
    }
    if (token == "-") {
        complain("the service sent no token with the code: a scan cannot be asked for");
        return EXIT_NOT_DONE;
    }
    if (context.wait > 0) {
        result = can_carry("the token", token) ? wait_for_scan(context, token) : EXIT_NOT_DONE;
        return report_activated(context, result);
    }
    if (!context.json) {
        printf("Scan it, then go on with 'pluginctl pbx check' and the token %s\n", token.c_str());
    }
    return EXIT_DONE;
}

int run_pbx_check(const command_context& context, arguments) {
    std::string token;
    std::string reply;
    if (!read_secret("token", context.from, &token) || !is_sendable("token", token)) {
        return EXIT_USAGE;
    }
    return report_activated(context, request(context, SCAN_QUERY + token, &reply));
}

int run_pbx_activate(const command_context& context, arguments) {
    std::string code;
    std::string reply;
    if (!read_secret("verification code", context.from, &code) ||
        !is_sendable("verification code", code)) {
        return EXIT_USAGE;
    }
    return report_activated(context,
                            request(context, "method=gw.app.action&device_vcode=" + code, &reply));
}

int run_pbx_config(const command_context& context, arguments) {
    std::string reply;
    const int result = request(context, CONFIG_QUERY, &reply);
    if (result != EXIT_DONE || context.json) {
        return result;
    }
    const json_ptr value = parse_json(reply.c_str());
    json_object* config = json_member(value.get(), "config");
    if (!json_object_is_type(config, json_type_object)) {
        complain("the service sent no SIP account");
        return EXIT_NOT_DONE;
    }
    print_members(config);
    return EXIT_DONE;
}

int run_pbx_extensions(const command_context& context, arguments words) {
    const std::string start = words.empty() ? "" : words[0];
    std::string reply;
    if (!std::all_of(start.begin(), start.end(), [](char c) { return c >= '0' && c <= '9'; })) {
        complain("'%s' is no index", start.c_str());
        return EXIT_USAGE;
    }
    if (!is_within("the index", start, 15)) {
        return EXIT_USAGE;
    }
    const std::string next = start.empty() ? "" : "&next=" + start;
    const int result = request(context, "method=gw.config.get&id=80036" + next, &reply);
    if (result != EXIT_DONE || context.json) {
        return result;
    }
    return print_extensions(parse_json(reply.c_str()).get(), to_int(start));
}
