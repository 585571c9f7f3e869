// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string>

#include "answers.h"
#include "base/json.h"
#include "commands.h"
#include "restart.h"
#include "safe_text.h"
#include "secret.h"
#include "words.h"

namespace {

constexpr const char* STATE_QUERY = "method=gw.config.get&id=80000";
constexpr const char* AUTHCODE_QUERY = "method=gw.config.get&id=80011";

// Longest values that the daemon keeps, characters.
constexpr size_t ACCOUNT_LIMIT = 31;
constexpr size_t TOKEN_LIMIT = 63;

// False, told, for a value that would not arrive as it is.
bool is_sendable(const std::string& what, const std::string& value, size_t limit) {
    if (hides_a_key(value)) {
        complain("%s contains the key of a setting, which pluginmgr would set", what.c_str());
        return false;
    }
    return is_within(what, value, limit) && can_carry(what, value);
}

// Asks for the run mode that is in force. EXIT_DONE, or the exit status, told.
int ask_mode(const command_context& context, std::string* mode) {
    std::string reply;
    const ending end = ask(context.daemon, STATE_QUERY, context.timeout, &reply);
    if (end != ending::ANSWERED) {
        return nobody(end);
    }
    *mode = field(parse_json(reply.c_str()).get(), "id80000");
    return EXIT_DONE;
}

int report_done(const command_context& context, int result, const char* words) {
    if (result == EXIT_DONE && !context.json) {
        printf("%s\n", words);
    }
    return result;
}

int show_authcode(const command_context& context) {
    std::string reply;
    const int result = request(context, AUTHCODE_QUERY, &reply);
    if (result == EXIT_DONE && !context.json) {
        const json_ptr value = parse_json(reply.c_str());
        printf("Code        %s\n", field(value.get(), "id80011").c_str());
        printf("State       %s\n", field(value.get(), "id80012").c_str());
        printf("Granted to  %s\n", field(value.get(), "id80013").c_str());
    }
    return result;
}

}  // namespace

int run_mode(const command_context& context, arguments words) {
    constexpr const char* MODES[] = {"on", "off", "ums", "disable"};
    const std::string wanted = words[0];
    std::string reply;
    std::string mode;
    if (std::find(std::begin(MODES), std::end(MODES), wanted) == std::end(MODES)) {
        complain("'%s' is no run mode; there are: on off ums disable", words[0]);
        return EXIT_USAGE;
    }
    int result = request(context, "method=gw.config.set&id80000=" + wanted, &reply);
    if (result == EXIT_DONE) {
        result = follow_restart(context.daemon, context.json);
    }
    if (result == EXIT_DONE) {
        result = ask_mode(context, &mode);
    }
    if (result == EXIT_DONE && mode != wanted) {
        complain("the run mode is %s", mode.c_str());
        return EXIT_NOT_DONE;
    }
    return report_done(context, result, ("run mode: " + mode).c_str());
}

int run_login(const command_context& context, arguments words) {
    const std::string user = words[0];
    std::string password;
    std::string reply;
    if (!is_sendable("the user name", user, ACCOUNT_LIMIT) ||
        !read_secret("password", context.from, &password)) {
        return EXIT_USAGE;
    }
    if (password.empty()) {
        complain("no password given");
        return EXIT_USAGE;
    }
    if (!is_sendable("the password", password, ACCOUNT_LIMIT)) {
        return EXIT_USAGE;
    }
    const int result = request(
        context, "method=gw.config.set&id80003=" + user + "&id80004=" + password + "&id80002=true",
        &reply);
    return report_done(context, result, ("bound to the account of " + printable(user)).c_str());
}

int run_bind(const command_context& context, arguments) {
    std::string token;
    std::string mode;
    std::string reply;
    if (!read_secret("activation token", context.from, &token) ||
        !is_sendable("the activation token", token, TOKEN_LIMIT)) {
        return EXIT_USAGE;
    }
    const int result = token.empty() ? EXIT_DONE : ask_mode(context, &mode);
    if (result != EXIT_DONE) {
        return result;
    }
    if (mode.starts_with("ums")) {
        complain("in the mode ums pluginmgr takes the token for one of the UMS server");
        return EXIT_NOT_DONE;
    }
    const std::string with_token = token.empty() ? "" : "&id80007=" + token;
    return report_done(
        context, request(context, "method=gw.config.set" + with_token + "&id80002=true", &reply),
        "bound");
}

int run_unbind(const command_context& context, arguments) {
    std::string reply;
    return report_done(context, request(context, "method=gw.config.set&id80002=false", &reply),
                       "unbound");
}

int run_authcode(const command_context& context, arguments words) {
    if (words.empty()) {
        return show_authcode(context);
    }
    const std::string action = words[0];
    std::string reply;
    if (action != "create" && action != "delete") {
        complain("authcode: '%s' is neither create nor delete", words[0]);
        return EXIT_USAGE;
    }
    // The code that is deleted is the one that the daemon read last.
    std::string known;
    command_context silent = context;
    silent.json = false;
    const int found = action == "delete" ? request(silent, AUTHCODE_QUERY, &known) : EXIT_DONE;
    if (found != EXIT_DONE) {
        return found;
    }
    if (action == "delete" && field(parse_json(known.c_str()).get(), "id80011") == "-") {
        complain("there is no code to delete");
        return EXIT_NOT_DONE;
    }
    const int result = request(context, "method=gw.app.action&authcode=" + action, &reply);
    if (result != EXIT_DONE || action == "delete") {
        return report_done(context, result, "deleted");
    }
    return show_authcode(context);
}
