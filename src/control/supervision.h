// SPDX-License-Identifier: Apache-2.0
// The periodic work of the control thread: watches the two agents, repeats the version report and
// the activation until they succeed; and the status query of the cloud agent. Owns the times of
// the agents' last signs of life. Control thread.
#pragma once

#include <ctime>

// An agent that was silent for longer is restarted, seconds.
constexpr time_t AGENT_SILENCE = 360;

extern time_t last_keepcloudae;
extern time_t last_keepcloudsafety;

// Runs its body at most once in 30 seconds; called in every idle pass.
void do_extra_task();

// Asks the cloud agent for its connection state, up to 5 seconds: "ok", "connecting" or "fail" in
// out, which is returned.
constexpr int CLOUDAE_STATE_SIZE = 11;
char* getCloudaeStats(char (&out)[CLOUDAE_STATE_SIZE]);
