// SPDX-License-Identifier: Apache-2.0
// download URL FILE: an HTTPS download as the daemon's download child does it.
#include <cstdio>

#include "config/settings.h"
#include "log/tb_log.h"
#include "net/transfer.h"
#include "net/transport.h"

namespace {

constexpr int CONNECT_SECONDS = 15;

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: download URL FILE\n");
        return 2;
    }
    log_init();
    log_set_output(LOG_TO_NONE);
    ssl_library_init();
    pluginmgr_config.conn_timeout = CONNECT_SECONDS;
    const int result = https_get_file(argv[1], argv[2]);
    if (result != 0) {
        fprintf(stderr, "download: %s failed with %d\n", argv[1], result);
        return 1;
    }
    return 0;
}
