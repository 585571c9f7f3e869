// SPDX-License-Identifier: Apache-2.0
#include "control/agent_messages.h"

#include <cstring>
#include <string_view>

#include "base/text.h"
#include "cloud/events.h"
#include "cloud/registration.h"
#include "codec/device_code.h"
#include "config/settings.h"
#include "device/ipc.h"
#include "log/tb_log.h"

namespace {

constexpr int LEAST_SERVICE_LEVEL = 5;

// The byte beyond the longest message terminates it.
struct agent_message {
    char bytes[AGENT_MESSAGE_SIZE + 1] = {};
    char sender[UNIX_PATH_SIZE] = {};

    [[nodiscard]] uint32_t type() const {
        uint32_t value = 0;
        memcpy(&value, bytes, sizeof value);
        return value;
    }
    void set_type(uint32_t value) { memcpy(bytes, &value, sizeof value); }
    [[nodiscard]] const char* payload() const { return bytes + AGENT_HEADER; }
    void set_payload(std::string_view text) {
        copy_text(bytes + AGENT_HEADER, sizeof bytes - AGENT_HEADER, text);
    }
};

void send_answer(const agent_message& message) {
    const size_t length = AGENT_HEADER + strlen(message.payload());
    // An agent that does not get its answer asks again.
    (void)sendUnixSocket(pluginmgr_ctl_fd, message.sender, message.bytes, length);
}

void forward_report(agent_message& message) {
    if (mode_is("ums")) {
        return;
    }
    if (activation_state != 0) {
        activation_state = active_device();
    }
    // The agent is not told.
    (void)pluginmgr_api_with_param(nullptr, "app_report", message.payload());
}

void change_log_level(agent_message& message) {
    const int level = to_int(message.payload());
    for (const int component : {LOG_SYSTEM, LOG_FUNCTION, LOG_CALL, LOG_API}) {
        log_set_level(component, level);
    }
    log_set_level(LOG_SERVICE, level >= LEAST_SERVICE_LEVEL ? level : 0);
}

void answer_device_code(agent_message& message) {
    char code[DEVICE_CODE_SIZE] = {};
    if (derive_device_code(message.payload(), code) == 0) {
        message.set_payload(code);
        message.set_type(AGENT_ANSWER);
    } else {
        message.set_payload("");
    }
    send_answer(message);
}

void answer_cloud_address(agent_message& message) {
    message.set_payload("");
    if (has_prefix(pluginmgr_config.active_state, "true")) {
        char address[sizeof pluginmgr_config.api_server + sizeof pluginmgr_config.device_key] = {};
        format_text(address, "%s %s", pluginmgr_config.api_server, pluginmgr_config.device_key);
        message.set_payload(address);
        message.set_type(AGENT_ANSWER);
    }
    send_answer(message);
}

struct message_type {
    uint32_t type;
    void (*handle)(agent_message& message);
};

constexpr message_type message_types[] = {
    {AGENT_APP_REPORT, forward_report},
    {AGENT_LOG_LEVEL, change_log_level},
    {AGENT_DEVICE_CODE, answer_device_code},
    {AGENT_CLOUD_ADDRESS, answer_cloud_address},
};

}  // namespace

void handle_agent_message() {
    agent_message message = {};
    if (recvUnixSocket(pluginmgr_ctl_fd, message.bytes, AGENT_MESSAGE_SIZE, &message.sender) <= 0) {
        return;
    }
    // An answer of our own, which came back because its receiver's path leads here by now, or is
    // another spelling of this one. The kernel names the sender by what it was bound to, so there
    // is no moment between looking and sending.
    if (std::string_view(message.sender) == CONTROL_SOCKET) {
        return;
    }
    for (const message_type& row : message_types) {
        if (row.type == message.type()) {
            row.handle(message);
            break;
        }
    }
}
