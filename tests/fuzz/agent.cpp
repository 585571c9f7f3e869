// SPDX-License-Identifier: Apache-2.0
// A message of the cloud agent on the daemon's socket; its answer goes back to the sender.
#include <sys/socket.h>

#include "base/handles.h"
#include "base/text.h"
#include "config/settings.h"
#include "control/agent_messages.h"
#include "device/ipc.h"
#include "log/tb_log.h"
#include "world.h"

namespace {

void body(fuzz_input& in) {
    const std::string path = inside("/daemon");
    const unique_fd daemon(bindUnixSocket(path.c_str()));
    const unique_fd agent(bindUnixSocket(inside("/agent").c_str()));
    require(daemon && agent, "two sockets");
    pluginmgr_ctl_fd = daemon.get();
    set_text(pluginmgr_config.active_state, in.byte() % 2 == 0 ? "true" : "false");
    set_text(pluginmgr_config.api_server, "api.example");
    set_text(pluginmgr_config.device_key, "key");
    const std::string message = in.part();
    world.answer = in.rest();
    (void)sendUnixSocket(agent.get(), path.c_str(), message.data(), message.size());
    handle_agent_message();
    char answer[2 * AGENT_MESSAGE_SIZE] = {};
    const ssize_t length = recv(agent.get(), answer, sizeof answer, MSG_DONTWAIT);
    require(length < static_cast<ssize_t>(sizeof answer), "size of an answer");
    require(length < 0 || length >= static_cast<ssize_t>(AGENT_HEADER), "header of an answer");
    log_set_level(LOG_API, 9);
}

}  // namespace

FUZZ_TARGET(body)
