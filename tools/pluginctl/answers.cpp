// SPDX-License-Identifier: Apache-2.0
#include "answers.h"

#include <json-c/json.h>

#include <cstdarg>
#include <cstdio>

#include "base/json.h"
#include "base/text.h"
#include "control/boa_protocol.h"
#include "safe_text.h"
#include "words.h"

void complain(const char* format, ...) {
    va_list args;
    va_start(args, format);
    (void)fflush(stdout);  // keeps the order when both end up in one place
    (void)fputs("pluginctl: ", stderr);
    // clang-tidy 14 overlooks va_start() in every file but the first of a run.
    (void)vfprintf(stderr, format, args);  // NOLINT(clang-analyzer-valist.Uninitialized)
    (void)fputc('\n', stderr);
    va_end(args);
}

int nobody(ending end) {
    if (end == ending::PASSED) {
        complain(
            "pluginmgr answers other queries but not this one: the method or the id is "
            "unknown to the version that runs");
    } else if (end == ending::REFUSED) {
        complain(
            "nobody answers on 127.0.0.1, UDP port %d: is pluginmgr running on this device?\n"
            "In the project's tree './dev lab' starts a simulated device to try this on.",
            CONTROL_PORT);
    } else {
        complain(
            "no answer in time. The port (127.0.0.1, UDP %d) is open, so pluginmgr is "
            "probably\nwaiting for the cloud; try again, or wait longer with --timeout.",
            CONTROL_PORT);
    }
    return EXIT_NOBODY;
}

int unreadable(const std::string& reply) {
    complain("the answer is not what it should be: %s", printable(reply).c_str());
    return EXIT_NOT_DONE;
}

int code_of(const std::string& reply) {
    const json_ptr value = parse_json(reply.c_str());
    return json_object_get_int(json_member(value.get(), "code"));
}

int judge_code(const std::string& reply) {
    if (parse_json(reply.c_str()) == nullptr) {
        return unreadable(reply);
    }
    const int code = code_of(reply);
    if (code != 0) {
        complain("pluginmgr answered with code %d: %s", code, code_words(code));
    }
    return code == 0 ? EXIT_DONE : EXIT_NOT_DONE;
}

void print_json(const std::string& reply) {
    printf("%s\n", safe_json(reply).c_str());
}

int request(const command_context& context, const std::string& query, std::string* reply) {
    if (!fits(query)) {
        return EXIT_USAGE;
    }
    const ending end = ask(context.daemon, query, context.timeout, reply);
    if (end != ending::ANSWERED) {
        return nobody(end);
    }
    if (context.json) {
        print_json(*reply);
    }
    return judge_code(*reply);
}

std::string field(json_object* value, const char* key) {
    json_object* member = json_member(value, key);
    const char* text = member == nullptr ? nullptr : json_object_get_string(member);
    return is_empty(text) ? "-" : printable(text);
}

bool can_carry(const std::string& what, std::string_view value) {
    if (value.find('&') != std::string_view::npos) {
        complain(
            "%s contains '&', which the control protocol cannot carry: it separates values "
            "and there is no encoding for it",
            what.c_str());
        return false;
    }
    return true;
}

bool is_within(const std::string& what, std::string_view value, size_t limit) {
    if (value.size() > limit) {
        complain("%s has %zu characters, pluginmgr keeps %zu", what.c_str(), value.size(), limit);
        return false;
    }
    return true;
}

bool fits(const std::string& query) {
    if (query.size() > MAX_QUERY) {
        complain("the query text has %zu bytes, a request holds %zu", query.size(), MAX_QUERY);
        return false;
    }
    return true;
}
