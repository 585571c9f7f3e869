// SPDX-License-Identifier: Apache-2.0
#include "control/supervision.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "base/handles.h"
#include "base/text.h"
#include "cloud/events.h"
#include "cloud/registration.h"
#include "config/settings.h"
#include "control/app_action.h"
#include "control/boa_report.h"
#include "device/ipc.h"
#include "log/tb_log.h"
#include "upgrade/version_list.h"

time_t last_keepcloudae = 0;
time_t last_keepcloudsafety = 0;

namespace {

constexpr time_t TICK = 30;  // seconds
constexpr unsigned SLOW_TICKS = 10;
constexpr unsigned EAGER_TICKS = 6;

constexpr uint32_t STATUS_QUERY = 0x1000;
constexpr size_t STATUS_QUERY_SIZE = 40;
constexpr size_t STATUS_ANSWER_SIZE = 20;
constexpr size_t STATUS_WORD_AT = 4;
constexpr int STATUS_WAIT_MS = 5000;
constexpr uint32_t AGENT_CONNECTED = 0;
constexpr uint32_t AGENT_CONNECTING = 2;

time_t last_tick = 0;
unsigned tick_counter = 0;
int version_report_pending = 1;

// Whether an agent that is to send signs of life has sent none for too long. When the clock was set
// back its silence counts from now, or nobody would look after it until the old time is reached.
bool is_silent(time_t now, time_t* last_sign, int watched) {
    *last_sign = std::min(*last_sign, now);
    return watched != 0 && now - *last_sign > AGENT_SILENCE;
}

// An agent that stays silent is started again on every tick: its time is not reset here.
void watch_cloudae(time_t now) {
    if (!is_silent(now, &last_keepcloudae, cloudae_send_keep)) {
        return;
    }
    if (mode_is("on") || mode_is("ums")) {
        // Neither can be refused: both arguments are there.
        (void)do_app_action(mode_is("ums") ? "cloudae --ums" : "cloudae", "restart");
        log_plain(LOG_SYSTEM, LEVEL_ALWAYS,
                  " cloudae is not running, start cloudae since cloudserver on or ums");
    }
}

void watch_cloudsafety(time_t now) {
    const bool silent = is_silent(now, &last_keepcloudsafety, cloudsafety_send_keep);
    if (silent && (mode_is("disable") || mode_is("off"))) {
        (void)do_app_action("cloudsafety", "restart");
    }
}

void repeat_version_report() {
    const bool due = tick_counter == 1 || tick_counter % SLOW_TICKS == 0;
    if (version_report_pending != 0 && !mode_is("ums") && due) {
        version_report_pending = pluginmgr_api(nullptr, "report_versions");
    }
}

void repeat_activation() {
    const bool due = tick_counter <= EAGER_TICKS || tick_counter % SLOW_TICKS == 0;
    if (activation_state != 0 && !mode_is("ums") && due) {
        activation_state = active_device();
    }
}

bool wait_for_answer(int fd) {
    pollfd waiting = {fd, POLLIN, 0};
    return poll(&waiting, 1, STATUS_WAIT_MS) > 0;
}

const char* state_name(uint32_t state) {
    switch (state) {
        case AGENT_CONNECTED:
            return "ok";
        case AGENT_CONNECTING:
            return "connecting";
        default:
            return "fail";
    }
}

void query_state(int fd, char (&out)[CLOUDAE_STATE_SIZE]) {
    char query[STATUS_QUERY_SIZE] = {};
    memcpy(query, &STATUS_QUERY, sizeof STATUS_QUERY);
    const ssize_t sent = sendUnixSocket(fd, AGENT_SOCKET, query, sizeof query);
    if (sent < 0) {
        log_err("getCloudaeStats", __LINE__, "sendUnixSocketsocket return %d",
                static_cast<int>(sent));
        log_err("getCloudaeStats", __LINE__, "cloudae connection_status(%s)", out);
        return;
    }
    if (!wait_for_answer(fd)) {
        return;
    }
    char answer[STATUS_ANSWER_SIZE] = {};
    char sender[UNIX_PATH_SIZE] = {};
    const ssize_t received = recvUnixSocket(fd, answer, sizeof answer, &sender);
    if (received <= 0) {
        log_err("getCloudaeStats", __LINE__, "recvUnixSocket return %d",
                static_cast<int>(received));
        log_err("getCloudaeStats", __LINE__, "cloudae connection_status(%s)", out);
        return;
    }
    uint32_t state = 0;
    if (static_cast<size_t>(received) < STATUS_WORD_AT + sizeof state) {
        return;  // no state in it: no good news
    }
    memcpy(&state, answer + STATUS_WORD_AT, sizeof state);
    set_text(out, state_name(state));
}

}  // namespace

void do_extra_task() {
    const time_t now = time(nullptr);
    if (now >= last_tick && now - last_tick < TICK) {
        return;
    }
    last_tick = now;
    tick_counter++;
    resend_boa_report();
    watch_cloudae(now);
    watch_cloudsafety(now);
    repeat_version_report();
    repeat_activation();
}

char* getCloudaeStats(char (&out)[CLOUDAE_STATE_SIZE]) {
    set_text(out, "fail");
    if (mode_is("off") || mode_is("disable")) {
        return out;
    }
    unique_fd fd(bindUnixSocket(STATUS_QUERY_SOCKET));
    if (!fd) {
        return out;
    }
    query_state(fd.get(), out);
    fd.reset();
    (void)unlink(STATUS_QUERY_SOCKET);  // the next query removes what is left
    return out;
}
