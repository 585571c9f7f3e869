// SPDX-License-Identifier: Apache-2.0
// The version list as a file of anybody's making: loaded, completed, shown with notes of any length
// in buffers of any size, written back. What was written loads again, with as many entries.
#include "upgrade/version_list.h"

#include <cstring>
#include <memory>

#include "base/text.h"
#include "config/settings.h"
#include "control/status_document.h"
#include "upgrade/app_info.h"
#include "world.h"

namespace {

size_t empty_list() {
    size_t count = 0;
    for (; app_list.next != &app_list; count++) {
        const app_info_ptr entry(app_list.next);
        app_list.next = entry->next;
    }
    app_list.prev = &app_list;
    return count;
}

size_t count_named() {
    size_t count = 0;
    for (const app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        count++;
    }
    return count;
}

}  // namespace

void body(fuzz_input& in) {
    set_text(pluginmgr_config.version, "1.2.10");
    const size_t size = 16 * in.byte() + 64;
    put_file(VERSION_LIST_FILE, in.rest());
    (void)loadLocalVersion();
    dumpLocalVersion();
    for (app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        entry->remote = dupAppInfo(*entry);
    }
    const std::unique_ptr<char[]> document(new char[size]());
    require(dumpVersionStatus(document.get(), size) == strlen(document.get()), "its own length");
    require(parse_json(document.get()) != nullptr, "what the web pages get is JSON");
    dumpVersionToFile();
    const size_t count = count_named();
    (void)empty_list();
    require(loadLocalVersion() == 0 && empty_list() == count, "a written list loads again");
}
