// SPDX-License-Identifier: Apache-2.0
#include "control/app_action.h"

#include <cstdio>
#include <string>

#include "base/result.h"
#include "base/shell.h"
#include "base/text.h"
#include "device/program.h"
#include "device/wan.h"
#include "log/tb_log.h"

char download_url[256] = "";

namespace {

constexpr int RATE_COMPLETE = 1;
constexpr int RATE_NO_FILE = 0;

constexpr const char* AGENT_UPDATE[] = {
    "bunzip2 /tmp/cloudae.bz2  /var/bin/",
    "tar -zxvf /tmp/cloudae.tar.gz  -C /tmp/",
    "mv /var/bin/cloudae.bz2 /var/bin/cloudae.bz2.bak",
    "cp /tmp/cloudae/cloudae.bz2 /var/bin",
    "mv /var/config/cloud/cloudae.ini  /var/config/cloud/cloudae.ini.bak",
    "cp /tmp/cloudae/*.ini /var/config/cloud",
    "mv /var/lib/libpaho-mqtt3as.so /var/lib/libpaho-mqtt3as.so.bak",
    "cp -rf /tmp/cloudae/*.so /var/lib/",
    "cp /var/bin/cloudae.bz2 /var/run;bunzip2 /var/run/cloudae.bz2;chmod 777 /var/run/cloudae",
    "echo -n '{\"result\":\"ok\"}' > /tmp/web/cloud/systemstatuslog.htm",
};
constexpr const char* NO_UPDATE =
    "echo -n '{\"result\":\"fail\"}' > /tmp/web/cloud/systemstatuslog.htm";

const char* shown(const char* text) {
    return text == nullptr ? "(null)" : text;
}

void download(const char* name) {
    const std::string path = joined({"/tmp/", name});
    const std::string url = is_empty(download_url) ? std::string() : shell_word(download_url);
    switch (check_download_rate(path.c_str())) {
        case RATE_COMPLETE:
            break;
        case RATE_NO_FILE:
            printf("download first!!!");
            run_shell_format("cd /tmp;wget %s 1>/dev/null 2>&1", url.c_str());
            break;
        default:
            // A broken download is not resumed: the command is printed, not run. On purpose.
            printf("download continue!!!");
            run_shell("killall wget");
            printf("cd /tmp;wget -c %s 1>/dev/null 2>&1", url.c_str());
            run_shell("");
            break;
    }
}

void update(const char* name) {
    if (!has_prefix(name, "cloudae")) {
        run_shell(NO_UPDATE);
        return;
    }
    for (const char* command : AGENT_UPDATE) {
        run_shell(command);
    }
}

}  // namespace

int do_app_action(const char* name, const char* action) {
    if (is_empty(name) || is_empty(action)) {
        log_err(__func__, __LINE__, "please check  app(%s) or action(%s), exit!", shown(name),
                shown(action));
        return FAILED;
    }
    if (act_on_program(name, action) != 0) {
        return FAILED;
    }
    if (has_prefix(action, "download")) {
        download(name);
    }
    if (has_prefix(action, "update")) {
        update(name);
    }
    return 0;
}
