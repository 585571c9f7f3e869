// SPDX-License-Identifier: Apache-2.0
#include "device/wan.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/file.h"
#include "base/handles.h"
#include "base/shell.h"

namespace {

constexpr const char* STATUS_FILE = "/tmp/wanStatus";
constexpr size_t STATUS_LINE = 30;
constexpr size_t RATE_LINE = 50;
constexpr size_t RATE_LENGTH = 4;
constexpr int NOT_FINISHED = -1;

// The progress line ends its rate with a quote and a brace: ..."100%"}.
bool is_finished(std::string_view line) {
    const size_t brace = line.find('}');
    return brace != std::string_view::npos && brace > RATE_LENGTH &&
           line.substr(brace - 1 - RATE_LENGTH, RATE_LENGTH) == "100%";
}

}  // namespace

int get_wan_status() {
    run_shell("/var/run/BRIX_get BRIX_wanStatus > /tmp/wanStatus");
    char line[STATUS_LINE] = {};
    const file_ptr file = open_stream(STATUS_FILE, TEXT_FILE_LIMIT);
    const bool up =
        file && fgets(line, sizeof line, file.get()) != nullptr && strchr(line, '1') != nullptr;
    (void)unlink(STATUS_FILE);  // absent when there is no status tool
    return up ? 1 : 0;
}

int check_download_rate(const char* path) {
    if (access(path, R_OK) != 0) {
        return 0;
    }
    const file_ptr progress = open_stream("/tmp/web/dl_rate.html", TEXT_FILE_LIMIT);
    char line[RATE_LINE] = {};
    if (!progress || fgets(line, sizeof line, progress.get()) == nullptr) {
        return NOT_FINISHED;
    }
    return is_finished(line) ? 1 : NOT_FINISHED;
}
