// SPDX-License-Identifier: Apache-2.0
#include <json-c/json.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "answers.h"
#include "base/json.h"
#include "base/text.h"
#include "commands.h"
#include "plugins.h"
#include "safe_text.h"
#include "screen.h"
#include "watch.h"
#include "words.h"

namespace {

constexpr const char* STATE_QUERY = "method=gw.config.get&id=80000";
constexpr const char* LIST_QUERY = "method=gw.config.get&id=80005";
constexpr const char* CHECK_QUERY = "method=gw.config.get&id=80025";

// A plug-in's name goes into a query whose keys the daemon looks up anywhere in the text.
bool is_sendable_name(const char* name) {
    if (is_empty(name) || std::string_view(name).find('=') != std::string_view::npos) {
        complain("'%s' is no plug-in name", name);
        return false;
    }
    return can_carry("the plug-in name", name);
}

// Asks for the plug-in list. EXIT_DONE, or the exit status, told.
int ask_list(const command_context& context, const char* query, std::vector<plugin>* list) {
    std::string reply;
    const ending end = ask(context.daemon, query, context.timeout, &reply);
    if (end != ending::ANSWERED) {
        return nobody(end);
    }
    auto plugins = read_plugins(reply);
    if (!plugins) {
        return unreadable(reply);
    }
    *list = std::move(*plugins);
    return EXIT_DONE;
}

int report_unknown(const std::string& name, const std::vector<plugin>& list) {
    std::string names;
    for (const plugin& entry : list) {
        names += (names.empty() ? "" : ", ") + printable(entry.name);
    }
    complain("the device has no plug-in %s; it has: %s", name.c_str(), names.c_str());
    return EXIT_NOT_DONE;
}

// Sends one plug-in action and judges its code.
int request_action(const command_context& context, const std::string& name, const char* action,
                   bool show_json) {
    std::string reply;
    command_context silent = context;
    silent.json = show_json;
    return request(silent, "method=gw.app.action&pluginName=" + name + "&pluginAction=" + action,
                   &reply);
}

void print_outcome(const judgement& outcome, const upgrade_watch& watch, double seconds) {
    const json_ptr object(json_object_new_object());
    json_object* top = object.get();
    const auto text = [](const std::string& value) {
        return json_object_new_string(value.c_str());
    };
    json_object_object_add(top, "pluginName", text(watch.name));
    json_object_object_add(top, "installed",
                           json_object_new_boolean(outcome.what == verdict::INSTALLED));
    json_object_object_add(top, "message", text(outcome.words));
    json_object_object_add(top, "pluginVersion", text(watch.last.version));
    json_object_object_add(top, "pluginNewVersion", text(watch.target));
    json_object_object_add(top, "status", json_object_new_int(watch.last.status));
    json_object_object_add(top, "seconds", json_object_new_int(static_cast<int>(seconds)));
    print_json(json_object_to_json_string_ext(top, JSON_C_TO_STRING_PLAIN));
}

int watch_upgrade(const command_context& context, const plugin& entry) {
    upgrade_watch watch;
    screen out = open_screen(context.json);
    watch.name = entry.name;
    watch.target = entry.new_version;
    watch.last = entry;
    watch.requested_at = seconds_now();
    const judgement outcome = follow_upgrade(context.daemon, &watch, &out);
    const double seconds = seconds_now() - watch.requested_at;
    if (context.json) {
        print_outcome(outcome, watch, seconds);
    } else if (outcome.what == verdict::INSTALLED) {
        printf("%s: %s (%.0f s)\n", printable(watch.name).c_str(), outcome.words.c_str(), seconds);
    } else {
        complain("%s: %s", printable(watch.name).c_str(), outcome.words.c_str());
    }
    if (outcome.what == verdict::NOBODY) {
        return EXIT_NOBODY;
    }
    return outcome.what == verdict::INSTALLED ? EXIT_DONE : EXIT_NOT_DONE;
}

// What there is to say about an entry that has nothing to be upgraded to.
int report_no_offer(const command_context& context, const plugin& entry) {
    const std::string name = printable(entry.name);
    if (entry.status != APP_UP_TO_DATE && entry.status != APP_RESTARTED) {
        complain("%s: no newer version is known (%s); 'pluginctl check' asks the cloud",
                 name.c_str(), state_of(entry));
        return EXIT_NOT_DONE;
    }
    if (context.json) {
        upgrade_watch watch;
        watch.name = entry.name;
        watch.target = entry.new_version;
        watch.last = entry;
        print_outcome({verdict::INSTALLED, "up to date"}, watch, 0);
    } else {
        printf("%s: up to date, version %s\n", name.c_str(), printable(entry.version).c_str());
    }
    return EXIT_DONE;
}

// Brings an entry whose last upgrade has ended to a state in which a request counts: a check that
// finds a newer version makes it idle. EXIT_DONE, or the exit status, told.
int renew_offer(const command_context& context, const std::string& name, plugin* entry) {
    constexpr double CHECK_TIMEOUT = 30;
    command_context check = context;
    check.timeout = std::max(context.timeout, CHECK_TIMEOUT);
    std::vector<plugin> list;
    if (!context.json) {
        printf("%s: last upgrade ended as '%s'; asking the cloud again\n", printable(name).c_str(),
               status_words(entry->status));
        (void)fflush(stdout);
    }
    const int result = ask_list(check, CHECK_QUERY, &list);
    if (result != EXIT_DONE) {
        return result;
    }
    const plugin* found = find_plugin(list, name);
    if (found == nullptr) {
        return report_unknown(name, list);
    }
    *entry = *found;
    if (entry->has_offer() && is_ended(entry->status)) {
        complain(
            "%s: the check did not end, and pluginmgr forgets a request made in the state "
            "'%s'; try again later",
            printable(name).c_str(), status_words(entry->status));
        return EXIT_NOT_DONE;
    }
    return EXIT_DONE;
}

// The entry of the plug-in that is named, as the daemon has it now.
int find_named(const command_context& context, const char* name, plugin* entry) {
    std::vector<plugin> list;
    if (!is_sendable_name(name)) {
        return EXIT_USAGE;
    }
    const int result = ask_list(context, LIST_QUERY, &list);
    if (result != EXIT_DONE) {
        return result;
    }
    const plugin* found = find_plugin(list, name);
    if (found == nullptr) {
        return report_unknown(name, list);
    }
    *entry = *found;
    return EXIT_DONE;
}

}  // namespace

int run_status(const command_context& context, arguments) {
    std::string state;
    std::string plugins;
    ending end = ask(context.daemon, STATE_QUERY, context.timeout, &state);
    if (end == ending::ANSWERED) {
        end = ask(context.daemon, LIST_QUERY, context.timeout, &plugins);
    }
    if (end != ending::ANSWERED) {
        return nobody(end);
    }
    if (context.json) {
        printf("{\"state\":%s,\"plugins\":%s}\n", safe_json(state).c_str(),
               safe_json(plugins).c_str());
        return EXIT_DONE;
    }
    const json_ptr value = parse_json(state.c_str());
    const auto list = read_plugins(plugins);
    if (!json_object_is_type(value.get(), json_type_object) || !list) {
        return unreadable(list ? state : plugins);
    }
    printf("Run mode     %s\n", field(value.get(), "id80000").c_str());
    printf("Cloud agent  %s\n", field(value.get(), "id80001").c_str());
    printf("UMS server   %s\n\n", field(value.get(), "id80014").c_str());
    print_plugins(*list);
    return EXIT_DONE;
}

int run_check(const command_context& context, arguments) {
    // The daemon gives its upgrade thread this long, seconds, and then answers with what it has.
    constexpr double DAEMON_PATIENCE = 19.5;
    std::string reply;
    screen out = open_screen(context.json);
    if (out.terminal) {
        show_state(&out, "asking the cloud for newer versions", -1, 0);
    }
    const double started = seconds_now();
    const ending end = ask(context.daemon, CHECK_QUERY, context.timeout, &reply);
    clear_screen_line(&out);
    if (end != ending::ANSWERED) {
        return nobody(end);
    }
    const bool ended = seconds_now() - started <= DAEMON_PATIENCE;
    if (!ended) {
        complain(
            "the check did not end in 20 seconds, what follows may be old. There is no check "
            "in the\nmodes ums and disable, nor before the device is activated.");
    }
    const int result = ended ? EXIT_DONE : EXIT_NOT_DONE;
    if (context.json) {
        print_json(reply);
        return result;
    }
    const auto list = read_plugins(reply);
    if (!list) {
        return unreadable(reply);
    }
    print_plugins(*list);
    return result;
}

int run_update(const command_context& context, arguments words) {
    const std::string name = words[0];
    plugin entry;
    int result = find_named(context, words[0], &entry);
    if (result == EXIT_DONE && is_ended(entry.status)) {
        result = renew_offer(context, name, &entry);
    }
    if (result != EXIT_DONE) {
        return result;
    }
    const bool active = is_active(entry.status);
    if (active && context.watch) {
        return watch_upgrade(context, entry);
    }
    if (!active && (!entry.has_offer() || entry.status == APP_UP_TO_DATE)) {
        return report_no_offer(context, entry);
    }
    result = request_action(context, name, "update", context.json && !context.watch);
    if (result == EXIT_DONE && context.watch) {
        return watch_upgrade(context, entry);
    }
    if (result == EXIT_DONE && !context.json) {
        printf("%s: upgrade to %s requested; follow it with 'pluginctl update %s --watch'\n",
               name.c_str(), printable(entry.new_version).c_str(), name.c_str());
    }
    return result;
}

int run_cancel(const command_context& context, arguments words) {
    const std::string name = words[0];
    plugin entry;
    int result = find_named(context, words[0], &entry);
    if (result != EXIT_DONE) {
        return result;
    }
    result = request_action(context, name, "cancel", context.json);
    if (result == EXIT_DONE && !context.json) {
        printf("%s: cancelled (was: %s)\n", name.c_str(), state_of(entry));
    }
    if (result == EXIT_DONE && entry.status == APP_INSTALLING) {
        complain(
            "the installation was broken off; pluginmgr installs nothing more until it is "
            "restarted");
    }
    return result;
}
