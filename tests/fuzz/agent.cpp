// SPDX-License-Identifier: Apache-2.0
// A message of the cloud agent on the daemon's socket; its answer goes back to the sender, under
// the header that came.
#include "control/agent_messages.h"

#include <sys/socket.h>

#include "base/handles.h"
#include "base/text.h"
#include "config/settings.h"
#include "device/ipc.h"
#include "log/tb_log.h"
#include "world.h"

void body(fuzz_input& in) {
    const unique_fd daemon(bindUnixSocket(CONTROL_SOCKET));
    const unique_fd agent(bindUnixSocket("/tmp/agent"));
    require(daemon && agent, "two sockets");
    pluginmgr_ctl_fd = daemon.get();
    set_text(pluginmgr_config.active_state, in.byte() % 2 == 0 ? "true" : "false");
    set_text(pluginmgr_config.api_server, "api.example");
    set_text(pluginmgr_config.device_key, "key");
    std::string message = in.part();
    world.answer = in.rest();
    (void)sendUnixSocket(agent.get(), CONTROL_SOCKET, message.data(), message.size());
    handle_agent_message();
    char answer[2 * AGENT_MESSAGE_SIZE] = {};
    const ssize_t length = recv(agent.get(), answer, sizeof answer, MSG_DONTWAIT);
    message.resize(AGENT_HEADER);
    require(length < static_cast<ssize_t>(sizeof answer), "size of an answer");
    require(length < 0 || length >= static_cast<ssize_t>(AGENT_HEADER), "header of an answer");
    require(length < 0 || message.compare(4, AGENT_HEADER - 4, answer + 4, AGENT_HEADER - 4) == 0,
            "the rest of a header comes back");
    log_set_level(LOG_API, 9);
}
