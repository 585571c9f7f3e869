// SPDX-License-Identifier: Apache-2.0
#include "upgrade/version_list.h"

#include <fcntl.h>
#include <json-c/json.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include "base/file.h"
#include "base/handles.h"
#include "base/json.h"
#include "base/name.h"
#include "base/result.h"
#include "base/shell.h"
#include "base/text.h"
#include "config/settings.h"
#include "device/ipc.h"
#include "device/versions.h"
#include "log/tb_log.h"
#include "upgrade/app_info.h"

std::atomic<int> cloudae_send_keep = 0;
std::atomic<int> cloudsafety_send_keep = 0;

namespace {

constexpr const char* OWN_NAME = "pluginmgr";
constexpr const char* AGENT_NAME = "cloudae";
constexpr const char* FIRST_KEEP_VERSION = "1.0.25";  // of cloudae, with keep-alives

constexpr mode_t LIST_MODE = 0644;

constexpr size_t AGENT_VERSION_SIZE = 256 + 1;
constexpr size_t SAFETY_ANSWER_SIZE = 128 + 1;
constexpr size_t VERSION_TEXT_SIZE = 2048;

constexpr uint32_t AGENT_VERSIONS = 0x3000;  // message type
constexpr size_t AGENT_TEXT_LIMIT = 1005;    // the first length that is refused

constexpr size_t FIRST_NOTE_LIMIT = 512;
constexpr size_t SHORTEST_NOTE = 1;

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

// Whole or not at all: a list cut by a power failure would bring every old version back.
void publish_version_list(std::string_view text) {
    if (publish_file(VERSION_LIST_FILE, text, LIST_MODE) != 0) {
        log_err("dumpVersionToFile", __LINE__, "version list not written, the old one stays: %s",
                strerror(errno));
    }
}

void append_version_line(char (&text)[VERSION_TEXT_SIZE], const app_info& entry) {
    const size_t used = strlen(text);
    if (!append_format(text, sizeof text, "%s:%s\n", one_line(entry.app_name.get()).c_str(),
                       one_line(text_or(entry.version, "")).c_str())) {
        text[used] = '\0';  // whole lines only
    }
}

json_ptr cloud_versions_document(char (&text)[VERSION_TEXT_SIZE]) {
    json_ptr list(json_object_new_array());
    const app_list_guard guard;
    for (const app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        json_object* object = json_object_new_object();
        add_json_text(object, "app_name", entry->app_name.get());
        add_json_text(object, "version", entry->version.get());
        json_object_array_add(list.get(), object);
        append_version_line(text, *entry);
    }
    return list;
}

text_ptr exported_versions;

// For the programs that are started. setenv() would keep every text that it is ever given.
void export_versions(const char* document) {
    text_ptr text = heap_text((std::string("cloud_version=") + document).c_str());
    if (text && set_shell_variable(text.get())) {
        exported_versions = std::move(text);
    }
}

std::string_view note_of(const app_info& entry, size_t limit) {
    if (!entry.remote || !entry.remote->rel_info) {
        return "null";
    }
    const std::string_view note = entry.remote->rel_info.get();
    if (limit == 0 || note.size() <= limit) {
        return note;
    }
    while (limit > 0 && (note[limit] & 0xC0) == 0x80) {
        limit--;  // half a UTF-8 character would spoil the whole document
    }
    return note.substr(0, limit);
}

json_object* status_object(const app_info& entry, size_t note_limit) {
    const app_info* remote = entry.remote.get();
    const bool offered = remote != nullptr && remote->version;
    const std::string_view note = note_of(entry, note_limit);
    json_object* object = json_object_new_object();
    add_json_text(object, "pluginName", entry.app_name.get());
    add_json_text(object, "pluginVersion", entry.version.get());
    add_json_text(object, "pluginNewVersion",
                  offered ? remote->version.get() : entry.version.get());
    json_object_object_add(object, "pluginNote",
                           json_object_new_string_len(note.data(), static_cast<int>(note.size())));
    json_object_object_add(object, "pluginSpace",
                           json_object_new_int(remote != nullptr ? remote->size : entry.size));
    json_object_object_add(object, "status", json_object_new_int(entry.status));
    return object;
}

json_ptr status_document(size_t note_limit) {
    json_ptr list(json_object_new_array());
    const app_list_guard guard;
    for (const app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        json_object_array_add(list.get(), status_object(*entry, note_limit));
    }
    return list;
}

// The document's length, or 0 with buffer untouched when it does not fit.
size_t store_document(json_object* document, char* buffer, size_t size) {
    const char* text = json_object_to_json_string(document);
    const size_t length = text != nullptr ? strlen(text) : 0;
    if (length == 0 || length + 1 >= size) {
        return 0;
    }
    copy_text(buffer, size, {text, length});
    return length;
}

size_t store_what_fits(char* buffer, size_t size) {
    const json_ptr whole = status_document(SHORTEST_NOTE);
    const json_ptr part(json_object_new_array());
    size_t length = store_document(part.get(), buffer, size);
    for (size_t i = 0; i < json_object_array_length(whole.get()); i++) {
        json_object_array_add(part.get(),
                              json_object_get(json_object_array_get_idx(whole.get(), i)));
        const size_t longer = store_document(part.get(), buffer, size);
        if (longer == 0) {
            break;
        }
        length = longer;
    }
    return length;
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
        publish_version_list(text);
    }
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__, "write version list to local file %s",
            VERSION_LIST_FILE);
    send_versions_to_cloudae(1);
}

void send_versions_to_cloudae(int send) {
    char text[VERSION_TEXT_SIZE] = {};
    const json_ptr list = cloud_versions_document(text);
    const char* document = json_object_to_json_string(list.get());
    if (document == nullptr) {
        return;
    }
    export_versions(document);
    if (send == 1) {
        (void)sendToCloudae(document);  // logged there; the agent asks again when it needs them
    }
    (void)write_cloud_version(text);
}

int sendToCloudae(const char* text) {
    char message[AGENT_HEADER + AGENT_TEXT_LIMIT] = {};
    const size_t length = strlen(text);
    log_msg(LOG_SERVICE, LEVEL_DEBUG, __func__, __LINE__, "send to cloudae:%s", text);
    if (length >= AGENT_TEXT_LIMIT) {
        log_err(__func__, __LINE__, "bug: message is too long, cann't send to cloudae");
        return FAILED;
    }
    memcpy(message, &AGENT_VERSIONS, sizeof AGENT_VERSIONS);
    copy_text(message + AGENT_HEADER, AGENT_TEXT_LIMIT, {text, length});
    if (sendUnixSocket(pluginmgr_ctl_fd, AGENT_SOCKET, message, AGENT_HEADER + length) < 0) {
        log_err(__func__, __LINE__, "send message %s to cloudae fail", text);
        return FAILED;
    }
    return 0;
}

size_t dumpVersionStatus(char* buffer, size_t size) {
    copy_text(buffer, size, "");
    size_t limit = 0;  // no limit
    for (;;) {
        const size_t length = store_document(status_document(limit).get(), buffer, size);
        if (length > 0) {
            return length;
        }
        if (limit == SHORTEST_NOTE) {
            // No shorter notes are left, and another round would go on for ever.
            return store_what_fits(buffer, size);
        }
        limit = limit > 0 ? limit / 2 : FIRST_NOTE_LIMIT;
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__,
                "plugin release note is too long, limit to %d", static_cast<int>(limit));
    }
}
