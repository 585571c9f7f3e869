// SPDX-License-Identifier: Apache-2.0
#include "upgrade/request.h"

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <cstring>

#include "base/result.h"
#include "base/text.h"
#include "device/kv.h"
#include "log/tb_log.h"

namespace {

constexpr uint32_t MEMORY_RESERVE = 4 * 1024 * 1024;  // bytes beyond the package itself

// Bytes, held at the largest number; that is also the answer when it cannot be read.
uint32_t free_memory() {
    kv_entry table[] = {{heap_text("MemFree"), nullptr}};
    if (read_kv_file("/proc/meminfo", ':', table) != 0 || !table[0].value) {
        return UINT32_MAX;
    }
    const uint64_t kilobytes = strtoull(table[0].value.get(), nullptr, 10);
    return static_cast<uint32_t>(std::min<uint64_t>(kilobytes, UINT32_MAX / 1024) * 1024);
}

bool is_named(const app_info& entry, const char* name) {
    return strcmp(entry.app_name.get(), name) == 0;
}

// The caller holds the lock.
bool upgrade_pending() {
    for (const app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        if (entry->remote && entry->remote->upgrade_requested != 0) {
            return true;
        }
    }
    return false;
}

// The caller holds the lock.
app_info* find_upgradable(const char* name) {
    for (app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        if (is_named(*entry, name) && !is_not_newer(entry, entry->remote.get())) {
            return entry;
        }
    }
    return nullptr;
}

bool stop_entry(const char* name) {
    const app_list_guard guard;
    app_info* entry = first_app();
    while (entry != nullptr && !(is_named(*entry, name) && entry->remote)) {
        entry = next_app(entry);
    }
    if (entry == nullptr) {
        return false;
    }
    // One step: an install that begins meanwhile is either seen here or sees the new status.
    const int before = entry->status.exchange(APP_IDLE);
    if (before == APP_INSTALLING && entry->upgrade_thread_runs) {
        (void)pthread_cancel(entry->upgrade_thread);
        entry->upgrade_thread_runs = false;
    }
    entry->remote->upgrade_requested = 0;
    return true;
}

}  // namespace

int startPluginAppUpdate(const char* name) {
    if (is_empty(name)) {
        return 0;
    }
    app_info* entry = nullptr;
    app_info_ptr remote;
    {
        const app_list_guard guard;
        if (upgrade_pending()) {
            return ERR_UPGRADE_PENDING;
        }
        entry = find_upgradable(name);
        if (entry == nullptr) {
            return 0;
        }
        remote = dupAppInfo(*entry->remote);
    }
    if (!remote || check_memory(*remote) != 0) {
        return ERR_NO_MEMORY;
    }
    set_upgrade_requested(entry, 1);
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__, "start plugin %s upgrade", name);
    return 0;
}

int stopPluginAppUpdate(const char* name) {
    if (!is_empty(name) && stop_entry(name)) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__, "stop plugin %s upgrade", name);
    }
    return 0;
}

int check_memory(const app_info& remote) {
    const char* name = text_or(remote.app_name, "(null)");
    const uint32_t free_bytes = free_memory();
    const auto size = static_cast<uint32_t>(remote.size);
    const uint64_t need = uint64_t{size} + MEMORY_RESERVE;
    const auto need_shown = static_cast<uint32_t>(std::min<uint64_t>(need, UINT32_MAX));
    log_msg(LOG_SERVICE, LEVEL_DETAIL, __func__, __LINE__,
            "check_memory free:%u, app_name:%s, size:%u, need memory:%u", free_bytes, name, size,
            need_shown);
    if (free_bytes > need) {
        return 0;
    }
    log_err(__func__, __LINE__, "no memory to upgrade %s, size %uk, need %uk, free %uk", name,
            size / 1024, need_shown / 1024, free_bytes / 1024);
    return FAILED;
}
