// SPDX-License-Identifier: Apache-2.0
#include "upgrade/fetch.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "base/text.h"
#include "config/settings.h"
#include "log/tb_log.h"
#include "net/dns.h"
#include "net/transfer.h"
#include "net/transport.h"

namespace {

constexpr const char* OWN_PROGRAM = "/proc/self/exe";  // also when its file has been replaced
constexpr const char* PROCESS_NAME = "pluginmgr";      // by which killall finds it
constexpr const char* FETCH_NAME = "pluginmgr-fetch";
constexpr int FETCH_EXIT = 127;

enum word { NAME, URL, TARGET, LIMIT, API_LEVEL, TIMEOUT, MSS, DNS_1, DNS_2, DNS_3, CA_FILE };
static_assert(CA_FILE + 1 == FETCH_WORDS);

}  // namespace

void build_fetch(const char* url, const char* target, long long limit, fetch_command* command) {
    const settings& config = pluginmgr_config;
    const std::string words[FETCH_WORDS] = {FETCH_NAME,
                                            url,
                                            target,
                                            std::to_string(limit),
                                            std::to_string(log_get_level(LOG_API)),
                                            std::to_string(limited_wait(config.conn_timeout)),
                                            config.tcp_mss,
                                            config.dns1,
                                            config.dns2,
                                            config.dns3,
                                            config.tls_ca_file};
    for (size_t i = 0; i < FETCH_WORDS; i++) {
        command->words[i] = words[i];
        command->arguments[i] = command->words[i].data();
    }
}

void exec_fetch(const fetch_command& command) {
    (void)execv(OWN_PROGRAM, command.arguments);
}

bool is_fetch(int count, char** arguments) {
    return count == FETCH_WORDS && strcmp(arguments[NAME], FETCH_NAME) == 0;
}

int run_fetch(char** arguments) {
    (void)prctl(PR_SET_NAME, PROCESS_NAME);
    settings& config = pluginmgr_config;
    config.conn_timeout = to_int(arguments[TIMEOUT]);
    set_text(config.tcp_mss, arguments[MSS]);
    set_text(config.tls_ca_file, arguments[CA_FILE]);
    set_dns_servers(arguments[DNS_1], arguments[DNS_2], arguments[DNS_3]);
    log_join();
    log_set_level(LOG_API, to_int(arguments[API_LEVEL]));
    (void)download_file(arguments[URL], arguments[TARGET], strtoll(arguments[LIMIT], nullptr, 10));
    return FETCH_EXIT;
}
