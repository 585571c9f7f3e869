// SPDX-License-Identifier: Apache-2.0
#include <json-c/json.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

#include "answers.h"
#include "base/json.h"
#include "base/text.h"
#include "commands.h"
#include "plugins.h"
#include "restart.h"
#include "safe_text.h"
#include "words.h"

namespace {

void print_text(const char* before, json_object* value) {
    const char* text = value == nullptr ? nullptr : json_object_get_string(value);
    printf("%s%s\n", before, is_empty(text) ? "" : printable(text).c_str());
}

// The bare value that was asked for; of a reply that has none of that name, what it says.
void print_value(json_object* reply, int id) {
    char wanted[16] = {};
    (void)format_text(wanted, "id%d", id);  // always fits
    if (json_object* one = json_member(reply, wanted)) {
        print_text("", one);
        return;
    }
    json_object_object_foreach(reply, key, value) {
        if (std::string_view(key) != "result" && std::string_view(key) != "code") {
            print_text((printable(key) + "  ").c_str(), value);
        }
    }
}

int show_values(const command_context& context, const std::string& reply, int id) {
    const auto list = read_plugins(reply);
    const json_ptr value = parse_json(reply.c_str());
    if (context.json) {
        print_json(reply);
    } else if (list) {
        print_plugins(*list);
    } else if (json_object_is_type(value.get(), json_type_object)) {
        print_value(value.get(), id);
    } else {
        return unreadable(reply);
    }
    return judge_code(reply);
}

// A parameter id; 0 when text is not a plain number of up to nine digits.
int parse_id(std::string_view text) {
    const bool digits =
        std::all_of(text.begin(), text.end(), [](unsigned char c) { return std::isdigit(c) != 0; });
    return digits && !text.empty() && text.size() < 10 ? to_int(text) : 0;
}

struct assignment {
    int id = 0;
    const parameter* about = nullptr;
    std::string_view value;
};

bool parse_assignment(const char* word, assignment* out) {
    const std::string_view text(word);
    const size_t separator = text.find('=');
    out->id = separator == std::string_view::npos ? 0 : parse_id(text.substr(0, separator));
    if (out->id == 0) {
        complain("'%s' is not ID=VALUE", word);
        return false;
    }
    out->value = text.substr(separator + 1);
    out->about = find_parameter(out->id);
    if (out->about == nullptr || !out->about->settable) {
        complain(
            "%d cannot be set; these can: 80000 80002 80003 80004 80007 80014 80035 80037 "
            "80038",
            out->id);
        return false;
    }
    if (hides_a_key(out->value)) {
        complain("the value of %d contains the key of a setting, which pluginmgr would set",
                 out->id);
        return false;
    }
    return can_carry("the value of " + std::to_string(out->id), out->value);
}

// Builds the query; empty when a word is not right, which has been told. ids gets the ids whose
// replies are to come, in their order.
std::string build_set_query(arguments words, std::vector<int>* ids, std::vector<int>* silent) {
    std::string query = "method=gw.config.set";
    std::vector<int> given;
    for (const char* word : words) {
        assignment part;
        if (!parse_assignment(word, &part)) {
            return "";
        }
        if (std::count(given.begin(), given.end(), part.id) > 0) {
            complain("%d is given twice", part.id);
            return "";
        }
        given.push_back(part.id);
        query += "&id" + std::to_string(part.id) + "=" + std::string(part.value);
        if (!part.about->set_answered) {
            silent->push_back(part.id);
        }
    }
    for (const int* id = SET_REPLY_ORDER; *id != 0; id++) {
        if (std::count(given.begin(), given.end(), *id) > 0) {
            ids->push_back(*id);
        }
    }
    return fits(query) ? query : "";
}

// Prints what became of each answered id. True when each was done.
bool show_set_replies(const command_context& context, const std::vector<int>& ids,
                      const std::vector<std::string>& replies) {
    bool done = true;
    for (size_t i = 0; i < replies.size() && i < ids.size(); i++) {
        const int code = code_of(replies[i]);
        done = done && code == 0;
        if (context.json) {
            print_json(replies[i]);
        } else if (code == 0) {
            printf("%d: done\n", ids[i]);
        }
        if (code != 0) {
            complain("%d: pluginmgr answered with code %d: %s", ids[i], code, code_words(code));
        }
    }
    return done;
}

// Both set the run mode.
bool may_restart(const std::vector<int>& ids) {
    return std::count(ids.begin(), ids.end(), 80000) > 0 ||
           std::count(ids.begin(), ids.end(), 80014) > 0;
}

void report_missing_replies(ending end, int got, int expected) {
    const char* reason = "the rest did not come in time";
    if (end == ending::REFUSED) {
        reason =
            "then pluginmgr ended: a change of run mode restarts it, and the rest of the "
            "request is dropped";
    } else if (end == ending::PASSED) {
        reason = "it passed over the rest";
    }
    complain("pluginmgr answered %d of %d settings; %s", got, expected, reason);
}

}  // namespace

int run_get(const command_context& context, arguments words) {
    const int id = parse_id(words[0]);
    const parameter* about = find_parameter(id);
    if (id == 0) {
        complain("'%s' is no parameter id; ids are numbers such as 80000", words[0]);
        return EXIT_USAGE;
    }
    if (about != nullptr && about->asked_as == 0) {
        complain("%d (%s) can only be set", id, about->meaning);
        return EXIT_USAGE;
    }
    const int asked = about == nullptr ? id : about->asked_as;
    char query[64] = {};
    (void)format_text(query, "method=gw.config.get&id=%d", asked);  // always fits
    std::vector<std::string> replies;
    const ending end = ask_many(context.daemon, query, 1, context.timeout, &replies);
    if (replies.empty()) {
        return nobody(end);
    }
    return show_values(context, replies[0], id);
}

int run_set(const command_context& context, arguments words) {
    std::vector<int> ids;
    std::vector<int> silent;
    std::vector<std::string> replies;
    const std::string query = build_set_query(words, &ids, &silent);
    if (query.empty()) {
        return EXIT_USAGE;
    }
    // Without answers to wait for, the marker behind the request tells that it was read.
    const ending end = ask_many(context.daemon, query, ids.size(), context.timeout, &replies);
    if (replies.empty() && (!ids.empty() || end != ending::PASSED)) {
        return nobody(end);
    }
    bool done = show_set_replies(context, ids, replies);
    if (replies.size() < ids.size()) {
        report_missing_replies(end, static_cast<int>(replies.size()), static_cast<int>(ids.size()));
        done = false;
    }
    for (const int id : silent) {
        if (!context.json) {
            printf("%d: sent; pluginmgr gives no answer to this one\n", id);
        }
    }
    const int result = done ? EXIT_DONE : EXIT_NOT_DONE;
    return may_restart(ids) ? std::max(result, follow_restart(context.daemon, context.json))
                            : result;
}

int run_raw(const command_context& context, arguments words) {
    const std::string query = words[0];
    std::vector<std::string> replies;
    if (!fits(query)) {
        return EXIT_USAGE;
    }
    const ending end = ask_many(context.daemon, query, 0, context.timeout, &replies);
    if (replies.empty()) {
        return nobody(end);
    }
    int result = EXIT_DONE;
    for (const std::string& reply : replies) {
        print_json(reply);
        result = std::max(result, judge_code(reply));
    }
    return result;
}
