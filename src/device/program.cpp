// SPDX-License-Identifier: Apache-2.0
#include "device/program.h"

#include <unistd.h>

#include <string>
#include <string_view>

#include "base/name.h"
#include "base/result.h"
#include "base/shell.h"
#include "base/text.h"
#include "log/tb_log.h"

namespace {

constexpr const char* FUNCTION = "do_app_action";  // whose lines these are

bool is_program(const char* name) {
    const std::string_view words = name;
    return is_program_name(words.substr(0, words.find(' ')));
}

// killall gets the program's arguments too: to it they are more names.
void restart_or_stop(const char* name, const char* action) {
    const std::string words = shell_words(name);
    run_shell_format("killall -9 %s ", words.c_str());
    sleep(1);
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, FUNCTION, __LINE__, "%s will do action %s", name, action);
    if (has_prefix(action, "restart")) {
        run_shell_format("/var/run/%s &", words.c_str());
        sleep(1);
    }
    if (has_prefix(action, "stop")) {
        run_shell_format("killall -9 %s ", words.c_str());
    }
}

}  // namespace

int act_on_program(const char* name, const char* action) {
    if (!is_program(name)) {
        log_err(FUNCTION, __LINE__, "%s is no name of a program, refuse to %s it",
                one_line(name).c_str(), action);
        return FAILED;
    }
    if (has_prefix(action, "restart") || has_prefix(action, "stop")) {
        restart_or_stop(name, action);
    }
    return 0;
}
