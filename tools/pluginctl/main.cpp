// SPDX-License-Identifier: Apache-2.0
#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "answers.h"
#include "commands.h"
#include "frame/version.h"

namespace {

constexpr const char* HELP = R"(Usage: pluginctl [OPTION]... VERB [ARGUMENT]...

Asks and steers pluginmgr, the plug-in manager that runs on this device.

Plug-ins:
  status                 run mode, cloud agent, and the plug-ins as a table
  check                  ask the cloud for newer versions now, then the table
                         (takes up to 20 seconds)
  update NAME            request the upgrade of a plug-in to the offered version
  update NAME --watch    the same, and follow it until it is installed or has
                         failed; joins an upgrade that is under way. When the
                         last upgrade has ended, the cloud is asked again first
  cancel NAME            stop the upgrade of a plug-in

Parameters:
  get ID                 read a parameter, for example: pluginctl get 80000
  set ID=VALUE...        change parameters, all in one request, for example:
                         pluginctl set 80000=on
                         pluginctl set 80003=USER 80004=PASSWORD 80002=true
                         A value cannot contain '&'.
  raw 'QUERY'            send a query text as it is, print each answer:
                         pluginctl raw 'method=gw.config.get&id=80005'

Parameters to get:
  80000 run mode         80001 cloud agent       80014 UMS server
  80002 bound            80006 cloud account     80005 plug-ins
  80011 authorisation code, 80012 in use, 80013 granted to
  80031 PBX registered   80032 SIP registered    80033 SIP user
  80034 SIP server       80035 PBX service       80036 PBX extensions
  80037 user's SIP server                        80038 user's API server
Parameters to set:
  80000 on|off|ums|disable   80014 UMS server    80035 on|off
  80007 activation token     80003, 80004 account user name, password
  80002 true (bind) or false (unbind)
  80037, 80038 'DOMAIN|ADDRESS'

Options:
      --json             print pluginmgr's own JSON, or one JSON object
      --watch            with update: follow it to its end
      --timeout SECONDS  how long to wait for an answer (0.1 to 3600; by verb 10
                         to 60 seconds)
  -h, --help             this text
      --version          the version

Exit status:
  0  done
  1  pluginmgr answered with an error code, or the upgrade failed or is not
     possible
  2  the command line is wrong, or a value cannot be sent
  3  nobody answered

pluginmgr listens on 127.0.0.1, UDP port 6907: pluginctl works only on the
device itself.
)";

constexpr int NO_LIMIT = 1000;

struct verb {
    std::string_view name;
    int min_arguments;
    int max_arguments;
    double timeout;  // seconds; the daemon may have to wait for the cloud or for an agent
    int (*run)(const command_context& context, arguments words);
};

constexpr verb VERBS[] = {
    {"status", 0, 0, 10, run_status}, {"check", 0, 0, 30, run_check},
    {"update", 1, 1, 10, run_update}, {"cancel", 1, 1, 10, run_cancel},
    {"get", 1, 1, 30, run_get},       {"set", 1, NO_LIMIT, 60, run_set},
    {"raw", 1, 1, 60, run_raw},
};

struct options {
    bool json = false;
    bool watch = false;
    double timeout = 0;  // 0: the verb's own
};

enum option_code { OPTION_JSON = 256, OPTION_WATCH, OPTION_TIMEOUT, OPTION_VERSION };

constexpr option OPTIONS[] = {
    {"json", no_argument, nullptr, OPTION_JSON},
    {"watch", no_argument, nullptr, OPTION_WATCH},
    {"timeout", required_argument, nullptr, OPTION_TIMEOUT},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, OPTION_VERSION},
    {nullptr, 0, nullptr, 0},
};

int usage_error() {
    (void)fputs("Try 'pluginctl --help'.\n", stderr);
    return EXIT_USAGE;
}

bool parse_seconds(const char* text, double* out) {
    char* end = nullptr;
    *out = strtod(text, &end);
    return end != text && *end == '\0' && *out >= 0.1 && *out <= 3600;
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
            case OPTION_TIMEOUT:
                if (!parse_seconds(optarg, &out->timeout)) {
                    complain("'%s' is no number of seconds from 0.1 to 3600", optarg);
                    return usage_error();
                }
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

const verb* find_verb(std::string_view name) {
    for (const verb& row : VERBS) {
        if (row.name == name) {
            return &row;
        }
    }
    return nullptr;
}

int run_verb(const verb& chosen, const options& given, arguments words) {
    const int count = static_cast<int>(words.size());
    client daemon;
    if (count < chosen.min_arguments || count > chosen.max_arguments) {
        complain("%s: wrong number of arguments", chosen.name.data());
        return usage_error();
    }
    if (given.watch && chosen.name != "update") {
        complain("--watch belongs to update");
        return usage_error();
    }
    if (!open_client(&daemon)) {
        complain("no socket: %s", strerror(errno));
        return EXIT_NOBODY;
    }
    const double timeout = given.timeout > 0 ? given.timeout : chosen.timeout;
    return chosen.run({daemon, timeout, given.json, given.watch}, words);
}

}  // namespace

int main(int argc, char** argv) {
    options given;
    const int result = parse_options(argc, argv, &given);
    if (result >= 0) {
        return result;
    }
    if (optind >= argc) {
        complain("no verb given");
        return usage_error();
    }
    const verb* chosen = find_verb(argv[optind]);
    if (chosen == nullptr) {
        complain("there is no verb '%s'", argv[optind]);
        return usage_error();
    }
    const arguments words(argv + optind + 1, static_cast<size_t>(argc - optind - 1));
    return run_verb(*chosen, given, words);
}
