// SPDX-License-Identifier: Apache-2.0
#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "answers.h"
#include "commands.h"
#include "frame/version.h"
#include "help.h"

namespace {

constexpr int NO_LIMIT = 1000;

// Options that belong to some verbs only.
constexpr unsigned TAKES_WATCH = 1;
constexpr unsigned TAKES_WAIT = 2;
constexpr unsigned TAKES_FROM = 4;

struct verb {
    std::string_view name;
    std::string_view second;  // word of a two-word verb
    int min_arguments;
    int max_arguments;
    double timeout;  // seconds; the daemon may have to wait for the cloud or for an agent
    unsigned takes;
    int (*run)(const command_context& context, arguments words);
};

constexpr verb VERBS[] = {
    {"status", "", 0, 0, 10, 0, run_status},
    {"check", "", 0, 0, 30, 0, run_check},
    {"update", "", 1, 1, 10, TAKES_WATCH, run_update},
    {"cancel", "", 1, 1, 10, 0, run_cancel},
    {"mode", "", 1, 1, 60, 0, run_mode},
    {"login", "", 1, 1, 60, TAKES_FROM, run_login},
    {"bind", "", 0, 0, 60, TAKES_FROM, run_bind},
    {"unbind", "", 0, 0, 60, 0, run_unbind},
    {"authcode", "", 0, 1, 60, 0, run_authcode},
    {"pbx", "status", 0, 0, 60, 0, run_pbx_status},
    {"pbx", "qr", 0, 0, 60, TAKES_WAIT, run_pbx_qr},
    {"pbx", "check", 0, 0, 60, TAKES_FROM, run_pbx_check},
    {"pbx", "activate", 0, 0, 60, TAKES_FROM, run_pbx_activate},
    {"pbx", "config", 0, 0, 60, 0, run_pbx_config},
    {"pbx", "extensions", 0, 1, 60, 0, run_pbx_extensions},
    {"report", "", 1, NO_LIMIT, 60, 0, run_report},
    {"loglevel", "", 1, 1, 10, 0, run_loglevel},
    {"device-code", "", 1, 1, 10, 0, run_device_code},
    {"cloud-address", "", 0, 0, 10, 0, run_cloud_address},
    {"get", "", 1, 1, 30, 0, run_get},
    {"set", "", 1, NO_LIMIT, 60, 0, run_set},
    {"raw", "", 1, 1, 60, 0, run_raw},
};

struct options {
    bool json = false;
    bool watch = false;
    double timeout = 0;  // 0: the verb's own
    double wait = 0;
    const char* from = nullptr;
};

enum option_code {
    OPTION_JSON = 256,
    OPTION_WATCH,
    OPTION_WAIT,
    OPTION_FROM,
    OPTION_TIMEOUT,
    OPTION_VERSION
};

constexpr option OPTIONS[] = {
    {"json", no_argument, nullptr, OPTION_JSON},
    {"watch", no_argument, nullptr, OPTION_WATCH},
    {"wait", required_argument, nullptr, OPTION_WAIT},
    {"from", required_argument, nullptr, OPTION_FROM},
    {"timeout", required_argument, nullptr, OPTION_TIMEOUT},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, OPTION_VERSION},
    {nullptr, 0, nullptr, 0},
};

int usage_error() {
    (void)fputs("Try 'pluginctl --help'.\n", stderr);
    return EXIT_USAGE;
}

// False, told, for what is no number of seconds.
bool parse_seconds(const char* text, double* out) {
    char* end = nullptr;
    *out = strtod(text, &end);
    if (end == text || *end != '\0' || !(*out >= 0.1 && *out <= 3600)) {
        complain("'%s' is no number of seconds from 0.1 to 3600", text);
        return false;
    }
    return true;
}

// -1 to go on, or the exit status.
int parse_options(int argc, char** argv, options* out) {
    int code = 0;
    while ((code = getopt_long(argc, argv, "h", OPTIONS, nullptr)) != -1) {
        switch (code) {
            case OPTION_JSON:
                out->json = true;
                break;
            case OPTION_WATCH:
                out->watch = true;
                break;
            case OPTION_WAIT:
            case OPTION_TIMEOUT:
                if (!parse_seconds(optarg, code == OPTION_WAIT ? &out->wait : &out->timeout)) {
                    return usage_error();
                }
                break;
            case OPTION_FROM:
                out->from = optarg;
                break;
            case OPTION_VERSION:
                printf("pluginctl %s\n", daemon_version);
                return EXIT_DONE;
            case 'h':
                (void)fputs(HELP, stdout);
                return EXIT_DONE;
            default:
                return usage_error();
        }
    }
    return -1;
}

// The row of the verb that words begin with; or null, told.
const verb* find_verb(arguments words) {
    std::string seconds;
    for (const verb& row : VERBS) {
        if (row.name != words[0]) {
            continue;
        }
        if (row.second.empty() || (words.size() > 1 && row.second == words[1])) {
            return &row;
        }
        seconds += " " + std::string(row.second);
    }
    if (seconds.empty()) {
        complain("there is no verb '%s'", words[0]);
    } else {
        complain("%s needs one of:%s", words[0], seconds.c_str());
    }
    return nullptr;
}

// False, told, for an option that the verb does not know.
bool takes_options(const verb& chosen, const options& given) {
    struct {
        bool given;
        unsigned taken;
        const char* words;
    } const limited[] = {
        {given.watch, TAKES_WATCH, "--watch belongs to update"},
        {given.wait > 0, TAKES_WAIT, "--wait belongs to pbx qr"},
        {given.from != nullptr, TAKES_FROM,
         "--from belongs to login, bind, pbx check and pbx activate"},
    };
    for (const auto& row : limited) {
        if (row.given && (chosen.takes & row.taken) == 0) {
            complain("%s", row.words);
            return false;
        }
    }
    return true;
}

int run_verb(const verb& chosen, const options& given, arguments words) {
    const int count = static_cast<int>(words.size());
    client daemon;
    if (count < chosen.min_arguments) {
        complain("%s needs an argument", chosen.name.data());
        return usage_error();
    }
    if (count > chosen.max_arguments) {
        complain("%s%s%s: '%s' is an argument too many", chosen.name.data(),
                 chosen.second.empty() ? "" : " ", chosen.second.data(),
                 words[static_cast<size_t>(chosen.max_arguments)]);
        return usage_error();
    }
    if (!takes_options(chosen, given)) {
        return usage_error();
    }
    if (!open_client(&daemon)) {
        complain("no socket: %s", strerror(errno));
        return EXIT_NOBODY;
    }
    const double timeout = given.timeout > 0 ? given.timeout : chosen.timeout;
    return chosen.run({daemon, timeout, given.json, given.watch, given.wait, given.from}, words);
}

int run(int argc, char** argv) {
    options given;
    const int result = parse_options(argc, argv, &given);
    if (result >= 0) {
        return result;
    }
    if (optind >= argc) {
        complain("no verb given");
        return usage_error();
    }
    const arguments words(argv + optind, static_cast<size_t>(argc - optind));
    const verb* chosen = find_verb(words);
    if (chosen == nullptr) {
        return usage_error();
    }
    return run_verb(*chosen, given, words.subspan(chosen->second.empty() ? 1 : 2));
}

}  // namespace

int main(int argc, char** argv) {
    const int result = run(argc, argv);
    if (fflush(stdout) == 0 && ferror(stdout) == 0) {
        return result;
    }
    complain("not all of the output could be written");
    return result == EXIT_DONE ? EXIT_NOT_DONE : result;
}
