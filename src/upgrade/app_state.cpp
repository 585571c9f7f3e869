// SPDX-License-Identifier: Apache-2.0
#include "upgrade/app_state.h"

#include <cstddef>
#include <iterator>

#include "log/tb_log.h"

namespace {

constexpr size_t EVENTS = static_cast<size_t>(app_event::count);
constexpr size_t STATES = APP_BAD_SIGNATURE + 1;

enum class asked { keep, yes, no };

// What holds of an event wherever it comes from.
struct event_kind {
    const char* name;
    bool of_job;
    asked upgrade;  // what becomes of the wish for the upgrade
};
constexpr event_kind EVENT_KINDS[] = {
    {"offer_newer", false, asked::keep},
    {"offer_not_newer", false, asked::no},
    {"query_failed", false, asked::keep},  // the offer goes, and the wish with it
    {"asked_for", false, asked::yes},
    {"stopped", false, asked::no},
    {"download_begun", false, asked::keep},
    {"download_not_begun", false, asked::keep},  // the next pass tries again
    {"nothing_to_download", true, asked::no},
    {"download_failed", true, asked::no},
    {"download_done", true, asked::keep},
    {"install_begun", true, asked::keep},
    {"package_missing", true, asked::no},
    {"signature_missing", true, asked::no},
    {"signature_wrong", true, asked::no},
    {"install_failed", true, asked::no},
    {"install_partial", true, asked::no},
    {"install_done", true, asked::keep},
    {"restarted", false, asked::no},
};
static_assert(std::size(EVENT_KINDS) == EVENTS);

constexpr const char* STATE_NAMES[] = {
    "idle",         "(none)",  "downloading",  "download failed", "downloaded",
    "installing",   "failed",  "restarted",    "installed",       "up to date",
    "check failed", "partial", "no signature", "bad signature",
};
static_assert(std::size(STATE_NAMES) == STATES);

// clang-format off
constexpr int __ = NO_WAY;
constexpr int ID = APP_IDLE, DL = APP_DOWNLOADING, DF = APP_DOWNLOAD_FAILED, DD = APP_DOWNLOADED,
              IN = APP_INSTALLING, IF = APP_INSTALL_FAILED, RS = APP_RESTARTED, OK = APP_INSTALLED,
              UP = APP_UP_TO_DATE, CF = APP_CHECK_FAILED, PA = APP_INSTALL_PARTIAL,
              NS = APP_NO_SIGNATURE, BS = APP_BAD_SIGNATURE;
// The columns stand in the order of app_event, the rows in that of the status numbers.
constexpr int END = -2;  // of a row: a cell forgotten before it would be seen
constexpr int WAYS[][EVENTS + 1] = {
    //           check         user     download            install                         check
    //           new old fail  ask stop beg not none fl ok  beg gone ns  bs  fl  pa  ok     restarted
    /*  0 ID */ {ID, UP, CF,   ID, ID,  DL, __, __, __, __, __, __, __, __, __, __, __,     __, END},
    /*  1    */ {__, __, __,   __, __,  __, __, __, __, __, __, __, __, __, __, __, __,     __, END},
    /*  2 DL */ {__, __, __,   __, ID,  __, ID, CF, DF, DD, __, __, __, __, __, __, __,     __, END},
    /*  3 DF */ {ID, UP, CF,   ID, ID,  __, __, __, __, __, __, __, __, __, __, __, __,     __, END},
    /*  4 DD */ {__, __, __,   __, ID,  __, __, __, __, __, IN, IF, __, __, __, __, __,     __, END},
    /*  5 IN */ {__, __, __,   __, ID,  __, __, __, __, __, __, __, NS, BS, IF, PA, OK,     __, END},
    /*  6 IF */ {ID, UP, CF,   ID, ID,  __, __, __, __, __, __, __, __, __, __, __, __,     __, END},
    /*  7 RS */ {ID, UP, CF,   ID, ID,  __, __, __, __, __, __, __, __, __, __, __, __,     __, END},
    /*  8 OK */ {__, __, __,   __, ID,  __, __, __, __, __, __, __, __, __, __, __, __,     RS, END},
    /*  9 UP */ {ID, UP, CF,   ID, ID,  __, __, __, __, __, __, __, __, __, __, __, __,     __, END},
    /* 10 CF */ {ID, UP, CF,   ID, ID,  __, __, __, __, __, __, __, __, __, __, __, __,     __, END},
    /* 11 PA */ {ID, UP, CF,   ID, ID,  __, __, __, __, __, __, __, __, __, __, __, __,     __, END},
    /* 12 NS */ {ID, UP, CF,   ID, ID,  __, __, __, __, __, __, __, __, __, __, __, __,     __, END},
    /* 13 BS */ {ID, UP, CF,   ID, ID,  __, __, __, __, __, __, __, __, __, __, __, __,     __, END},
};
// clang-format on
static_assert(std::size(WAYS) == STATES);

// Every row has its cells, every event leads somewhere, and nothing leads away from the unused
// number.
constexpr bool is_complete() {
    for (const auto& row : WAYS) {
        if (row[EVENTS] != END) {
            return false;
        }
    }
    for (size_t event = 0; event < EVENTS; event++) {
        size_t ways = 0;
        for (const auto& row : WAYS) {
            ways += row[event] != NO_WAY ? 1 : 0;
        }
        if (ways == 0 || WAYS[1][event] != NO_WAY) {
            return false;
        }
    }
    return true;
}
static_assert(is_complete());

bool is_state(int status) {
    return status >= 0 && static_cast<size_t>(status) < STATES;
}

}  // namespace

int next_status(int status, app_event event) {
    return is_state(status) ? WAYS[status][static_cast<size_t>(event)] : NO_WAY;
}

bool advance(app_info* app, app_job job, app_event event) {
    const event_kind& kind = EVENT_KINDS[static_cast<size_t>(event)];
    if (kind.of_job && (job == NO_JOB || job != app->job)) {
        return false;  // stopped meanwhile
    }
    const int status = app->status;
    const int next = next_status(status, event);
    if (next == NO_WAY) {
        log_err(__func__, __LINE__, "%s: no way from %s by %s", text_or(app->app_name, ""),
                is_state(status) ? STATE_NAMES[status] : "(none)", kind.name);
        return false;
    }
    app->status = next;
    if (event == app_event::download_begun) {
        static app_job last_job = NO_JOB;  // under the lock, as all of this
        app->job = ++last_job;
    } else if (event == app_event::stopped) {
        app->job = NO_JOB;
    }
    if (app->remote && kind.upgrade != asked::keep) {
        app->remote->upgrade_requested = kind.upgrade == asked::yes ? 1 : 0;
    }
    return true;
}

app_job current_job(const app_info& app) {
    const app_list_guard guard;
    return app.job;
}

bool is_current(const app_info& app, app_job job) {
    const app_list_guard guard;
    return job != NO_JOB && app.job == job;
}

bool advance_locked(app_info* app, app_job job, app_event event) {
    const app_list_guard guard;
    return advance(app, job, event);
}
