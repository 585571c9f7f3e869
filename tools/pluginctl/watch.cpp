// SPDX-License-Identifier: Apache-2.0
#include "watch.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <memory>

#include "base/json.h"
#include "safe_text.h"
#include "words.h"

namespace {

constexpr const char* LIST_QUERY = "method=gw.config.get&id=80005";

// Seconds.
constexpr double ANSWER_WAIT = 2;    // for one answer; a daemon in a cloud call takes longer
constexpr double MODE_WAIT = 6;      // the daemon asks the cloud agent first
constexpr double ABSENCE = 90;       // a restart with a slow cloud takes most of it
constexpr double NOTICE = 5;         // a request is normally taken up within a tenth of one
constexpr double START_LIMIT = 120;  // the daemon may pause for a minute between two tries
constexpr double SETTLE = 3;
constexpr double RESTART_LIMIT = 60;
constexpr int DRAWS_PER_LOOK = 5;
constexpr useconds_t DRAW_PAUSE = 100000;  // microseconds

struct close_folder {
    void operator()(DIR* folder) const { (void)closedir(folder); }
};

// The upgrades after which the daemon restarts itself.
bool restarts_daemon(const std::string& name) {
    return name == "pluginmgr" || name == "cloud_basic";
}

// Size of the file written last in the download folder, or -1 when none was written since.
long long newest_download(time_t since) {
    const std::unique_ptr<DIR, close_folder> folder(opendir(DOWNLOAD_FOLDER));
    long long size = -1;
    time_t newest = since;
    while (folder) {
        const dirent* entry = readdir(folder.get());
        struct stat about = {};
        if (entry == nullptr) {
            break;
        }
        if (fstatat(dirfd(folder.get()), entry->d_name, &about, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(about.st_mode) && about.st_mtime >= newest) {
            newest = about.st_mtime;
            size = about.st_size;
        }
    }
    return size;
}

judgement failed(std::string words) {
    return {verdict::FAILED, std::move(words)};
}

judgement installed(const upgrade_watch& watch) {
    return {verdict::INSTALLED, "installed, version " + printable(watch.last.version)};
}

judgement judge_return(upgrade_watch* watch) {
    const std::string version = printable(watch->last.version);
    if (watch->last.version == watch->target) {
        return installed(*watch);
    }
    if (is_active(watch->last.status)) {
        return {};
    }
    return failed("pluginmgr was restarted and the upgrade is lost: the version is " + version +
                  ", not " + printable(watch->target));
}

judgement judge_installed(upgrade_watch* watch, double now) {
    if (!restarts_daemon(watch->name)) {
        return watch->last.status == APP_RESTARTED ? installed(*watch) : judgement{};
    }
    if (watch->installed_at == 0) {
        watch->installed_at = now;
    }
    if (now - watch->installed_at > RESTART_LIMIT) {
        return failed("installed, but pluginmgr has not restarted");
    }
    return {};
}

judgement judge_idle(const upgrade_watch& watch, double now) {
    const int status = watch.last.status;
    const double waited = now - watch.requested_at;
    if (watch.last.version == watch.target) {
        return installed(watch);
    }
    if (watch.started && status == APP_IDLE) {
        return failed("stopped: somebody cancelled it, or a check came in between");
    }
    if (status != APP_IDLE && (watch.started || waited > SETTLE)) {
        return failed(std::string("nothing was downloaded: ") + status_words(status));
    }
    if (waited > START_LIMIT) {
        return failed(
            "not started in two minutes; the request stays with pluginmgr until it is "
            "cancelled");
    }
    return {};
}

std::string state_line(const upgrade_watch& watch) {
    const int status = watch.last.status;
    std::string line = printable(watch.name) + ": ";
    if (is_active(status) || status == APP_RESTARTED) {
        line += status_words(status);
    } else {
        line += "requested";
    }
    if (status == APP_DOWNLOADING) {
        line += " " + printable(watch.target);
    }
    if (status == APP_RESTARTED && restarts_daemon(watch.name)) {
        line += ", pluginmgr restarts";
    }
    return line;
}

// Says once why a request may lie untouched.
void notice_delay(const client& daemon, screen* out) {
    std::string reply;
    std::string line =
        "nothing has happened yet: pluginmgr starts upgrades only in the modes on "
        "and off, when the device is activated and its product type is known";
    char mode[64] = {};
    if (ask(daemon, "method=gw.config.get&id=80000", MODE_WAIT, &reply) == ending::ANSWERED &&
        json_text(parse_json(reply.c_str()).get(), "id80000", mode, sizeof mode)) {
        line += " (its mode is " + printable(mode) + ")";
    }
    show_line(out, line);
}

void draw_until_next_look(const upgrade_watch& watch, bool absent, time_t since, screen* out) {
    for (int i = 0; i < DRAWS_PER_LOOK; i++) {
        const bool loading = !absent && watch.last.status == APP_DOWNLOADING;
        show_state(out, absent ? "pluginmgr does not answer, still asking" : state_line(watch),
                   loading ? newest_download(since) : -1, watch.last.size);
        usleep(DRAW_PAUSE);
    }
}

}  // namespace

judgement judge_upgrade(upgrade_watch* watch, const plugin* entry, double now) {
    if (entry == nullptr) {
        return failed("pluginmgr no longer lists it");
    }
    watch->last = *entry;
    if (watch->daemon_left) {
        return judge_return(watch);
    }
    if (entry->has_offer()) {
        watch->target = entry->new_version;
    }
    if (is_ended(entry->status) && entry->status != APP_RESTARTED) {
        return failed(status_words(entry->status));
    }
    if (entry->status == APP_RESTARTED || entry->status == APP_INSTALLED) {
        watch->started = true;
        return judge_installed(watch, now);
    }
    if (is_active(entry->status)) {
        watch->started = true;
        return {};
    }
    return judge_idle(*watch, now);
}

judgement follow_upgrade(const client& daemon, upgrade_watch* watch, screen* out) {
    const time_t since = time(nullptr) - 1;
    double answered_at = seconds_now();
    bool noticed = false;
    for (;;) {
        std::string reply;
        const ending end = ask(daemon, LIST_QUERY, ANSWER_WAIT, &reply);
        const double now = seconds_now();
        const auto list = end == ending::ANSWERED ? read_plugins(reply) : std::nullopt;
        watch->daemon_left = watch->daemon_left || end == ending::REFUSED;
        if (list) {
            answered_at = now;
            judgement found = judge_upgrade(watch, find_plugin(*list, watch->name), now);
            if (found.what != verdict::GOING) {
                clear_screen_line(out);
                return found;
            }
        } else if (now - answered_at > ABSENCE) {
            clear_screen_line(out);
            return {verdict::NOBODY, "pluginmgr has not answered for a minute and a half"};
        }
        if (list && !noticed && !watch->started && now - watch->requested_at > NOTICE) {
            noticed = true;
            notice_delay(daemon, out);
        }
        draw_until_next_look(*watch, !list, since, out);
    }
}
