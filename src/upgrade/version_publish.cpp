// SPDX-License-Identifier: Apache-2.0
#include "upgrade/version_publish.h"

#include <json-c/json.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>

#include "base/handles.h"
#include "base/result.h"
#include "base/shell.h"
#include "base/text.h"
#include "device/ipc.h"
#include "device/versions.h"
#include "log/tb_log.h"
#include "upgrade/app_info.h"

namespace {

constexpr size_t VERSION_TEXT_SIZE = 2048;

constexpr uint32_t AGENT_VERSIONS = 0x3000;  // message type
constexpr size_t AGENT_TEXT_LIMIT = 1005;    // the first length that is refused

text_ptr exported_versions;
text_ptr earlier_versions;  // a reader of the environment may still hold it

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

// The first entries, as many as make a document of at most EXPORT_LIMIT bytes.
json_ptr entries_that_fit(json_object* list) {
    json_ptr part(json_object_new_array());
    size_t length = strlen("[ ");  // and behind each entry ", " or " ]"
    for (size_t i = 0; i < json_object_array_length(list); i++) {
        json_object* entry = json_object_array_get_idx(list, i);
        length += strlen(json_object_to_json_string(entry)) + strlen(", ");
        if (length > EXPORT_LIMIT) {
            break;
        }
        json_object_array_add(part.get(), json_object_get(entry));
    }
    log_err("send_versions_to_cloudae", __LINE__,
            "cloud_version is too long, %zu of %zu plug-ins are in it",
            json_object_array_length(part.get()), json_object_array_length(list));
    return part;
}

}  // namespace

void export_versions(json_object* list) {
    json_ptr part;
    const char* document = json_object_to_json_string(list);
    if (strlen(document) > EXPORT_LIMIT) {
        part = entries_that_fit(list);
        document = json_object_to_json_string(part.get());
    }
    // setenv() would keep every text that it is ever given.
    text_ptr text = heap_text(joined({"cloud_version=", document}).c_str());
    if (text && set_shell_variable(text.get())) {
        earlier_versions = std::exchange(exported_versions, std::move(text));
    }
}

void send_versions_to_cloudae(int send) {
    char text[VERSION_TEXT_SIZE] = {};
    const json_ptr list = cloud_versions_document(text);
    const char* document = json_object_to_json_string(list.get());
    if (document == nullptr) {
        return;
    }
    export_versions(list.get());
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
