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
#include "upgrade/app_state.h"

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

// What find_upgradable() finds, copied; none when there is nothing newer. 0 or ERR_UPGRADE_PENDING.
int find_offer(const char* name, app_info_ptr* remote) {
    const app_list_guard guard;
    if (upgrade_pending()) {
        return ERR_UPGRADE_PENDING;
    }
    const app_info* entry = find_upgradable(name);
    *remote = entry != nullptr ? dupAppInfo(*entry->remote) : nullptr;
    return entry != nullptr && !*remote ? ERR_NO_MEMORY : 0;
}

bool is_same_offer(const app_info& one, const app_info& other) {
    return one.size == other.size &&
           strcmp(text_or(one.version, ""), text_or(other.version, "")) == 0;
}

// Asks for the upgrade to the offer that was looked at. False when it is there no more, or, with
// *code, when another upgrade has been asked for meanwhile.
bool ask_for(const char* name, const app_info& remote, int* code) {
    const app_list_guard guard;
    if (upgrade_pending()) {
        *code = ERR_UPGRADE_PENDING;
        return false;
    }
    app_info* entry = find_upgradable(name);
    if (entry == nullptr || !is_same_offer(*entry->remote, remote)) {
        return false;
    }
    const bool asked = advance(entry, NO_JOB, app_event::asked_for);
    *code = asked ? 0 : ERR_UPGRADE_PENDING;
    return asked;
}

// Bytes that running downloads may still take of the memory that is free now. The caller holds the
// lock.
uint64_t rest_of_downloads() {
    uint64_t rest = 0;
    for (const app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        rest += static_cast<uint64_t>(std::max<int64_t>(entry->download_rest, 0));
    }
    return rest;
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
    const bool installs = entry->status == APP_INSTALLING;
    (void)advance(entry, NO_JOB, app_event::stopped);  // there is a way from every status
    if (installs && entry->upgrade_thread_runs) {
        (void)pthread_cancel(entry->upgrade_thread);
        entry->upgrade_thread_runs = false;
    }
    return true;
}

}  // namespace

int startPluginAppUpdate(const char* name) {
    if (is_empty(name)) {
        return 0;
    }
    app_info_ptr remote;
    int code = find_offer(name, &remote);
    // Free memory is not looked up under the lock. What was found to fit has to be what is asked
    // for.
    while (code == 0 && remote) {
        if (check_memory(*remote) != 0) {
            return ERR_NO_MEMORY;
        }
        if (ask_for(name, *remote, &code)) {
            log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__, "start plugin %s upgrade", name);
            return 0;
        }
        if (code == 0) {
            code = find_offer(name, &remote);
        }
    }
    return code;
}

int stopPluginAppUpdate(const char* name) {
    if (!is_empty(name) && stop_entry(name)) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__, "stop plugin %s upgrade", name);
    }
    return 0;
}

int check_memory(const app_info& remote, app_info* entry) {
    const char* name = text_or(remote.app_name, "(null)");
    const uint32_t free_bytes = free_memory();
    // A size that cannot be is for the download to fail on.
    const auto size = static_cast<uint32_t>(std::max(remote.size, 0));
    uint64_t need = uint64_t{size} + MEMORY_RESERVE;
    bool fits = false;
    {
        const app_list_guard guard;
        need += rest_of_downloads();
        fits = free_bytes > need;
        if (fits && entry != nullptr) {
            entry->download_rest = size;
        }
    }
    const auto need_shown = static_cast<uint32_t>(std::min<uint64_t>(need, UINT32_MAX));
    log_msg(LOG_SERVICE, LEVEL_DETAIL, __func__, __LINE__,
            "check_memory free:%u, app_name:%s, size:%u, need memory:%u", free_bytes, name, size,
            need_shown);
    if (fits) {
        return 0;
    }
    log_err(__func__, __LINE__, "no memory to upgrade %s, size %uk, need %uk, free %uk", name,
            size / 1024, need_shown / 1024, free_bytes / 1024);
    return FAILED;
}
