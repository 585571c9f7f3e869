// SPDX-License-Identifier: Apache-2.0
// The version list as a file of anybody's making: loaded, completed, shown, written back. What was
// written loads again.
#include "upgrade/version_list.h"

#include <cstring>
#include <memory>

#include "base/text.h"
#include "config/settings.h"
#include "upgrade/app_info.h"
#include "world.h"

namespace {

void empty_list() {
    while (app_list.next != &app_list) {
        const app_info_ptr entry(app_list.next);
        app_list.next = entry->next;
    }
    app_list.prev = &app_list;
}

void body(fuzz_input& in) {
    set_text(pluginmgr_config.version, "1.2.10");
    const size_t size = 16 * in.byte() + 64;
    put_file(VERSION_LIST_FILE, in.rest());
    (void)loadLocalVersion();
    dumpLocalVersion();
    const std::unique_ptr<char[]> document(new char[size]());
    require(dumpVersionStatus(document.get(), size) == strlen(document.get()), "its own length");
    dumpVersionToFile();
    empty_list();
    require(loadLocalVersion() == 0, "a written list loads again");
    empty_list();
}

}  // namespace

FUZZ_TARGET(body)
