// SPDX-License-Identifier: Apache-2.0
// Messages of the cloud agent on the daemon's Unix socket: reports, log level, device code, cloud
// address. Control thread.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint32_t AGENT_ANSWER = 0x2000;
constexpr uint32_t AGENT_APP_REPORT = 0x2100;
constexpr uint32_t AGENT_CLOUD_ADDRESS = 0x3100;
constexpr uint32_t AGENT_DEVICE_CODE = 0x3101;
constexpr uint32_t AGENT_LOG_LEVEL = 0x3200;

constexpr size_t AGENT_MESSAGE_SIZE = 256;

// Receives one message from the daemon's socket, acts on it and answers its sender. Messages of
// other types are ignored, and the daemon's own; one that is shorter than its header counts as
// filled up with zeros.
void handle_agent_message();
