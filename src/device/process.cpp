// SPDX-License-Identifier: Apache-2.0
#include "device/process.h"

#include <dirent.h>
#include <unistd.h>

#include <memory>
#include <string_view>

#include "base/handles.h"
#include "base/result.h"
#include "base/text.h"

namespace {

constexpr size_t EXE_PATH_SIZE = 128;  // of an executable's path, terminator included
constexpr size_t LINK_PATH_SIZE = 64;

bool runs(const char* pid, std::string_view name) {
    char link[LINK_PATH_SIZE] = {};
    char target[EXE_PATH_SIZE] = {};
    if (!format_text(link, "/proc/%s/exe", pid)) {
        return false;
    }
    const ssize_t length = readlink(link, target, sizeof target - 1);
    return length > 0 && text_of(target).find(name) != std::string_view::npos;
}

}  // namespace

int find_process_by_exe(const char* name, char (*pid_out)[PID_TEXT_SIZE]) {
    const folder_ptr processes(opendir("/proc"));
    if (!processes || is_empty(name)) {
        return FAILED;
    }
    while (const dirent* entry = readdir(processes.get())) {
        const char first = entry->d_name[0];
        if (first >= '0' && first <= '9' && runs(entry->d_name, name)) {
            set_text(*pid_out, entry->d_name);
            return 0;
        }
    }
    return FAILED;
}
