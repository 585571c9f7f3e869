// SPDX-License-Identifier: Apache-2.0
#include "upgrade/version_list.h"

#include <json-c/json.h>

#include <cstring>
#include <new>
#include <utility>

#include "base/file.h"
#include "base/handles.h"
#include "base/json.h"
#include "base/name.h"
#include "base/result.h"
#include "base/shell.h"
#include "base/text.h"
#include "config/settings.h"
#include "log/tb_log.h"
#include "upgrade/app_info.h"
#include "upgrade/version_publish.h"

std::atomic<int> cloudae_send_keep = 0;
std::atomic<int> cloudsafety_send_keep = 0;

namespace {

constexpr const char* OWN_NAME = "pluginmgr";
constexpr const char* AGENT_NAME = "cloudae";
constexpr const char* FIRST_KEEP_VERSION = "1.0.25";  // of cloudae, with keep-alives

constexpr mode_t LIST_MODE = 0644;

constexpr size_t AGENT_VERSION_SIZE = 256 + 1;
constexpr size_t SAFETY_ANSWER_SIZE = 128 + 1;

void load_entry(json_object* element) {
    app_info_ptr entry(new (std::nothrow) app_info);
    if (!entry || parseAppInfoJsonObj(element, entry.get(), 1) != 0) {
        log_err("loadLocalVersion", __LINE__, "parse local app info error");
        return;
    }
    const char* name = text_or(entry->app_name, "");
    if (name[0] != '\0' && !is_program_name(name)) {  // one without a name is passed over anyway
        log_err("loadLocalVersion", __LINE__, "%s is no name of a plug-in, leave it out",
                one_line(name).c_str());
        return;
    }
    append_app(std::move(entry));
}

void log_entry(const char* function, const app_info& entry) {
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, function, __LINE__, "LocalVersion Info %s, %s, %s",
            text_or(entry.app_name, "(null)"), text_or(entry.version_name, "(null)"),
            text_or(entry.version, "(null)"));
}

void learn_agent_version(char (&version)[AGENT_VERSION_SIZE]) {
    if (read_shell("/var/run/cloudae --version | sed -n 's/.*version //p'", version,
                   sizeof version) < 0) {
        version[0] = '\0';
    }
    const size_t length = strlen(version);
    if (length > 0 && version[length - 1] == '\n') {
        version[length - 1] = '\0';
    }
    const bool supported = version[0] != '\0' && parse_version_number(version) >=
                                                     parse_version_number(FIRST_KEEP_VERSION);
    if (supported) {
        cloudae_send_keep = 1;
    }
    // The missing blank before "not" and the misspelt name are on purpose.
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, "dumpLocalVersion", __LINE__,
            "clouae version %s is%s support send keep", version, supported ? "" : "not");
}

void learn_safety_agent() {
    char answer[SAFETY_ANSWER_SIZE] = {};
    if (read_shell("/var/run/cloudsafety --version | grep enable", answer, sizeof answer) > 1) {
        cloudsafety_send_keep = 1;
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, "dumpLocalVersion", __LINE__,
                "clouaesafety support send keep");
    }
}

void set_version(app_info* entry, const char* version) {
    text_ptr copy = heap_text(version);
    const app_list_guard guard;
    entry->version.swap(copy);
}

json_ptr version_list_document() {
    json_ptr list(json_object_new_array());
    const app_list_guard guard;
    for (const app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        json_object* object = json_object_new_object();
        add_json_text(object, "app_name", entry->app_name.get());
        add_json_text(object, "version_name", entry->version_name.get());
        add_json_text(object, "version", entry->version.get());
        add_json_text(object, "rel_info", entry->rel_info.get());
        json_object_array_add(list.get(), object);
    }
    return list;
}

}  // namespace

int loadLocalVersion() {
    const json_ptr list = parse_json_file(VERSION_LIST_FILE);
    if (!list) {
        log_err(__func__, __LINE__,
                "parse local version list faild, file not exist or isn't json format");
        return ERR_NOT_JSON;
    }
    if (!json_object_is_type(list.get(), json_type_array)) {
        log_err(__func__, __LINE__, "invalid local version list");
        return ERR_NOT_ARRAY;
    }
    const size_t count = json_object_array_length(list.get());
    if (count == 0) {
        log_msg(LOG_SYSTEM, LEVEL_WARNING, __func__, __LINE__, "local version list is empty");
        return ERR_EMPTY_LIST;
    }
    for (size_t i = 0; i < count; i++) {
        json_object* element = json_object_array_get_idx(list.get(), i);
        if (element != nullptr) {
            load_entry(element);
        }
    }
    return 0;
}

void addVersionToLocal(const char* name, const char* version) {
    app_info_ptr entry(new (std::nothrow) app_info);
    if (!entry) {
        return;
    }
    entry->app_name = heap_text(name);
    entry->version = heap_text(version);
    log_entry(__func__, *entry);
    append_app(std::move(entry));
}

void dumpLocalVersion() {
    char agent_version[AGENT_VERSION_SIZE] = {};
    learn_agent_version(agent_version);
    learn_safety_agent();
    const bool agent_known = agent_version[0] != '\0';
    for (app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        if (strcmp(entry->app_name.get(), OWN_NAME) == 0) {
            set_version(entry, pluginmgr_config.version);
        } else if (agent_known && strcmp(entry->app_name.get(), AGENT_NAME) == 0) {
            set_version(entry, agent_version);
        }
        log_entry(__func__, *entry);
    }
    if (find_app(OWN_NAME) == nullptr) {
        addVersionToLocal(OWN_NAME, pluginmgr_config.version);
    }
    if (agent_known && find_app(AGENT_NAME) == nullptr) {
        addVersionToLocal(AGENT_NAME, agent_version);
    }
    send_versions_to_cloudae(0);
}

void dumpVersionToFile() {
    const json_ptr list = version_list_document();
    const char* text = json_object_to_json_string_ext(list.get(), JSON_C_TO_STRING_PLAIN);
    if (text != nullptr) {
        // Whole or not at all: a list cut by a power failure would bring every old version back. A
        // failure gets no line of its own.
        (void)publish_file(VERSION_LIST_FILE, text, LIST_MODE);
    }
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__, "write version list to local file %s",
            VERSION_LIST_FILE);
    send_versions_to_cloudae(1);
}
