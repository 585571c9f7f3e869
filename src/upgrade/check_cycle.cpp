// SPDX-License-Identifier: Apache-2.0
#include "upgrade/check_cycle.h"

#include <json-c/json.h>
#include <unistd.h>

#include <cstring>
#include <ctime>

#include "base/result.h"
#include "base/shell.h"
#include "base/text.h"
#include "cloud/events.h"
#include "codec/encode.h"
#include "config/ini.h"
#include "config/settings.h"
#include "device/program.h"
#include "device/versions.h"
#include "log/tb_log.h"
#include "net/http.h"
#include "net/transport.h"
#include "upgrade/app_state.h"
#include "upgrade/download.h"
#include "upgrade/install.h"
#include "upgrade/orphan.h"
#include "upgrade/report.h"

std::atomic<int> upgrade_check_flag = 0;

namespace {

constexpr useconds_t TICK = 100'000;      // microseconds
constexpr unsigned RETRY_PAUSE = 60;      // seconds, while the product type is unknown
constexpr unsigned EXIT_PAUSE = 5;        // seconds, before the daemon makes room for its successor
constexpr time_t LONGEST_FAREWELL = 600;  // seconds that the restart waits for what still runs
constexpr time_t CLOCK_TOLERANCE = -10;   // seconds; a clock set back further starts a check
constexpr size_t PATH_SIZE = 256;
constexpr size_t REQUEST_SIZE = 1024;
constexpr size_t KEY_TEXT_SIZE = 128;
constexpr size_t CREDENTIAL_LIMIT = 256;

https_conn connection;  // the upgrade thread's
std::atomic<int> drop_requested = 0;
time_t farewell_begun = 0;  // on the clock that nobody sets; 0 while the daemon stays

// Failures that the other queries of the same pass would only repeat.
bool is_server_failure(int result) {
    return result == ERR_NO_UPGRADE_INFO || result == ERR_RESOLVE || result == ERR_NOT_CONNECTED;
}

bool learn_product_type() {
    read_revision();
    return pluginmgr_config.hw_revision[0] != '\0' &&
           pluginmgr_api(nullptr, "report_cloudserver") == 0;
}

void run_tick() {
    if (pluginmgr_config.hw_revision[0] == '\0') {
        if (!learn_product_type()) {
            log_msg(LOG_SYSTEM, LEVEL_NOTICE, "upgrade_run", __LINE__,
                    "get product type failed, will try again after one minute");
            sleep(RETRY_PAUSE);
        }
    } else if (activation_state == 0) {
        checkAllAppVersion(&upgrade_check_flag);
    }
}

void start_install(app_info* entry) {
    const app_list_guard guard;
    if (upgrade_busy == 0 && !entry->upgrade_thread_runs) {
        // A failing start leaves the status as it is, so the next pass tries again.
        entry->upgrade_thread_runs =
            pthread_create(&entry->upgrade_thread, nullptr, upgrade_process, entry) == 0;
    }
}

bool is_own_package(const char* name) {
    return strcmp(name, "pluginmgr") == 0 || strcmp(name, "cloud_basic") == 0;
}

void restart_upgraded(app_info* entry) {
    bool restarts = false;
    if (!is_own_package(entry->app_name.get())) {
        const app_list_guard guard;
        restarts = entry->status == APP_INSTALLED && advance(entry, NO_JOB, app_event::restarted);
    }
    if (restarts) {
        (void)act_on_program(entry->app_name.get(), "restart");
    }
}

[[noreturn]] void restart_daemon(app_info* entry) {
    (void)advance_locked(entry, NO_JOB, app_event::restarted);
    sleep(EXIT_PAUSE);
    log_err("checkAllAppVersion", __LINE__, "pluginmgr exit since upgrade");
    run_shell("sleep 3 && /var/run/pluginmgr &");
    _exit(0);  // not exit(): its destructors would race with the other threads
}

// The entry by whose installation the daemon has become an older version than the one installed.
app_info* find_own_upgrade() {
    for (app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        if (entry->status == APP_INSTALLED && is_own_package(entry->app_name.get())) {
            return entry;
        }
    }
    return nullptr;
}

bool something_runs() {
    const app_list_guard guard;
    for (const app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        if (entry->download_thread_runs || entry->upgrade_thread_runs) {
            return true;
        }
    }
    return false;
}

// Nothing new begins; the daemon is restarted when nothing runs any more: an installer would go on
// beside its successor, which starts another.
void farewell_pass(app_info* own) {
    timespec now = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &now);  // there is one on every Linux
    farewell_begun = farewell_begun == 0 ? now.tv_sec : farewell_begun;
    for (app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        restart_upgraded(entry);
    }
    if (!something_runs() || now.tv_sec - farewell_begun > LONGEST_FAREWELL) {
        restart_daemon(own);
    }
}

// Acts on the status. True when the entry is at rest: it may be downloaded or asked for.
bool advance_entry(app_info* entry) {
    switch (entry->status) {
        case APP_IDLE:
        case APP_UP_TO_DATE:
        case APP_CHECK_FAILED:
        case APP_DOWNLOAD_FAILED:
        case APP_INSTALL_FAILED:
        case APP_RESTARTED:
        case APP_INSTALL_PARTIAL:
        case APP_NO_SIGNATURE:
        case APP_BAD_SIGNATURE:
            return true;
        case APP_DOWNLOADED:
            start_install(entry);
            return false;
        case APP_INSTALLED:
            restart_upgraded(entry);  // not the daemon's own: that is for the next pass
            return false;
        default:
            return false;
    }
}

// A job of before that has not yet noticed its stop is waited for: both would use the same file.
bool start_requested_download(app_info* entry) {
    const app_list_guard guard;
    if (entry->status != APP_IDLE || !entry->remote || entry->remote->upgrade_requested != 1 ||
        entry->download_thread_runs || entry->upgrade_thread_runs ||
        !advance(entry, NO_JOB, app_event::download_begun)) {
        return false;
    }
    entry->download_thread_runs =
        pthread_create(&entry->download_thread, nullptr, download_run, entry) == 0;
    if (!entry->download_thread_runs) {
        (void)advance(entry, NO_JOB, app_event::download_not_begun);
    }
    return entry->download_thread_runs;
}

// A request that came during the query goes for the offer that was there when it came.
void record_failure(app_info* entry, int result, bool* server_failed) {
    app_info_ptr gone;
    {
        const app_list_guard guard;
        const bool asked = entry->remote && entry->remote->upgrade_requested == 1;
        if (!asked && advance(entry, NO_JOB, app_event::query_failed)) {
            entry->remote.swap(gone);
        }
    }
    if (is_server_failure(result) && !*server_failed) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, "checkAllAppVersion", __LINE__,
                "check %s update fail, ret %d", entry->app_name.get(), result);
        *server_failed = true;
    }
}

void record_answer(app_info* entry, const app_info& answer) {
    bool not_newer = true;
    text_ptr installed;
    {
        const app_list_guard guard;
        not_newer = is_not_newer(entry, &answer);
        installed = heap_text(entry->version.get());
    }
    log_msg(LOG_SERVICE, LEVEL_DEBUG, "checkAllAppVersion", __LINE__,
            "getRemoteAppInfo %d,%s,%d,%s,%s(%s)", not_newer ? 1 : 0,
            text_or(answer.app_name, "(null)"), answer.size, text_or(answer.version_name, "(null)"),
            text_or(installed, "(null)"), text_or(answer.version, "(null)"));
    app_info_ptr fresh = dupAppInfo(answer);
    const app_list_guard guard;
    if (fresh && entry->remote && entry->remote->upgrade_requested == 1) {
        fresh->upgrade_requested = 1;  // the user asked while the query was under way
    }
    not_newer = is_not_newer(entry, &answer);  // an install may have ended since the line above
    const app_event event = not_newer ? app_event::offer_not_newer : app_event::offer_newer;
    entry->remote.swap(fresh);
    if (!advance(entry, NO_JOB, event)) {
        entry->remote.swap(fresh);
    }
}

void query_entry(app_info* entry, bool* server_failed) {
    app_info answer;
    const int result =
        *server_failed ? ERR_NO_UPGRADE_INFO : getRemoteAppInfo(entry->app_name.get(), &answer);
    if (result != 0) {
        record_failure(entry, result, server_failed);
    } else {
        record_answer(entry, answer);
    }
}

void start_cloud_server() {
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, "getRemoteAppInfo", __LINE__, "cloudserver start");
    set_text(pluginmgr_config.cloudserver, "on");
    (void)ini_set(SETTINGS_FILE, "Config", "cloudserver", "on");  // in effect all the same
    (void)act_on_program("cloudae", "restart");
    (void)pluginmgr_api(nullptr, "report_cloudserver");
}

// Nothing is URL-encoded, and what does not fit is cut.
void build_path(const char* name, char (&path)[PATH_SIZE]) {
    const settings& config = pluginmgr_config;
    (void)format_text(
        path, "/v1/res/upgrade/apps/%s?platform=%s&product_type=%s&language=%s&device_id=%s", name,
        config.device_model, config.hw_revision, config.language, config.device_id);
    if (strcmp(name, "cloudae") == 0) {
        (void)append_format(path, sizeof path, "&cloudserver=%s", config.cloudserver);
    }
}

bool append_device_credential(char* out, size_t size) {
    char text[KEY_TEXT_SIZE] = {};
    char credential[CREDENTIAL_LIMIT + 1] = {};
    format_text(text, "%s:x-auth-device", pluginmgr_config.device_key);
    base64_encode(text, strlen(text), credential, CREDENTIAL_LIMIT);
    return strlen(credential) <= 1 ||
           append_format(out, size, "Authorization: Basic %s\n", credential);
}

// Opens the connection when it is not open, and says so in *fresh.
int open_connection(const char* host, bool* fresh) {
    if (connection.socket >= 0 && https_peer_state(connection) == peer_state::closed) {
        close_https(&connection);
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, "https_upgrade_request", __LINE__, "reconnect https....");
    }
    if (connection.socket < 0) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, "https_upgrade_request", __LINE__,
                "start connect https....");
        if (connect_https(&connection, host) != 0) {
            log_err("https_upgrade_request", __LINE__, "failed connect https!");
            return ERR_NOT_CONNECTED;
        }
        *fresh = true;
    }
    return 0;
}

// To be called before the server's name is read: a name read earlier may be the old one, and its
// address would be kept under the new name.
void honour_drop_request() {
    if (drop_requested.exchange(0) == 1) {
        close_https(&connection);
        connection.server_address = 0;
    }
}

bool is_ok(json_object* status) {
    const char* text = json_object_get_string(status);
    return text != nullptr && strcmp(text, "ok") == 0;
}

}  // namespace

void drop_upgrade_connection() {
    drop_requested = 1;
}

void* upgrade_run(void* stop) {
    const auto* stop_word = static_cast<std::atomic<int>*>(stop);
    if (pluginmgr_config.api_server[0] == '\0') {
        log_err(__func__, __LINE__, "cann't get api server address");
    }
    log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__, "upgrade thread start %d", getpid());
    init_https_conn(&connection);
    adopt_orphan_install();
    upgrade_check_flag = 1;
    time_t mark = time(nullptr);
    while (*stop_word != 1) {
        usleep(TICK);
        const time_t now = time(nullptr);
        if (now - mark > pluginmgr_config.checkcycle || now - mark < CLOCK_TOLERANCE) {
            upgrade_check_flag = 1;
            mark = now;
        }
        run_tick();
    }
    return nullptr;
}

void checkAllAppVersion(std::atomic<int>* check_flag) {
    // Read once: a request that comes during a pass without queries is for the next pass.
    const bool query = *check_flag == 1;
    bool server_failed = false;
    if (app_info* own = find_own_upgrade(); own != nullptr) {
        *check_flag = 0;  // whoever waits for a check gets what is known
        farewell_pass(own);
        return;
    }
    farewell_begun = 0;
    if (query) {
        send_upgrade_reports();
    }
    for (app_info* entry = first_app(); entry != nullptr; entry = next_app(entry)) {
        if (find_own_upgrade() != nullptr) {
            return;  // it has come meanwhile, and nothing new begins
        }
        // A query would put an end to the download that has just begun.
        if (!advance_entry(entry) || start_requested_download(entry)) {
            continue;
        }
        if (query) {
            query_entry(entry, &server_failed);
        }
    }
    if (query) {
        *check_flag = 0;
    }
}

int getRemoteAppInfo(const char* name, app_info* record) {
    char path[PATH_SIZE] = {};
    char request[REQUEST_SIZE] = {};
    char host[sizeof pluginmgr_config.api_server] = {};
    json_ptr answer;
    honour_drop_request();
    set_text(host, text_of(pluginmgr_config.api_server));
    if (host[0] == '\0') {
        return ERR_NO_UPGRADE_INFO;
    }
    build_path(name, path);
    int result = ERR_SEND;
    if (build_upgrade_request(request, sizeof request, "GET", path, host, "KEY") == 0) {
        result = https_upgrade_request(host, request, &answer);
    }
    if (result == 0) {
        result = parseRemoteAppInfo(answer.get(), record, name);
    } else {
        clear_app_info(record);
    }
    if (result == 0 && strcmp(name, "cloudae") == 0 &&
        has_prefix(record->cloudserver.get(), "on") && !mode_is("on")) {
        start_cloud_server();
    }
    return result;
}

int build_upgrade_request(char* out, size_t size, const char* method, const char* path,
                          const char* host, const char* auth) {
    // Bare line feeds, and the empty line after one of them, are what the platform is used to.
    bool whole = format_into(out, size, "%s %s HTTP/1.1\nHost: %s\n", method,
                             one_line(path).c_str(), one_line(host).c_str());
    if (has_prefix(auth, "KEY")) {
        whole = append_device_credential(out, size) && whole;
    }
    whole = append_text(out, size,
                        "User-Agent:Mozilla/4.0 (compatible; MSIE 5.01; Windows NT 5.0)\n") &&
            whole;
    whole =
        append_text(out, size,
                    strcmp(method, "GET") == 0
                        ? "Accept: */*\nAccept-Language: zh-cn\nAccept-Encoding: gzip, deflate\n"
                        : "Content-Type:application/x-www-form-urlencoded\n") &&
        whole;
    whole = append_text(out, size, "Connection: keep-alive\n\r\n\r\n") && whole;
    return whole ? 0 : FAILED;
}

int https_upgrade_request(const char* host, const char* request, json_ptr* answer) {
    bool fresh = false;
    for (;;) {
        const int opened = open_connection(host, &fresh);
        if (opened != 0) {
            return opened;
        }
        const int result = https_handle_request(&connection, request, nullptr, answer);
        if (result == 0 || fresh) {
            return result;
        }
        close_https(&connection);  // so that the second try is on a fresh one
    }
}

int parseRemoteAppInfo(json_object* answer, app_info* record, const char* name) {
    clear_app_info(record);
    if (answer == nullptr || !json_object_is_type(answer, json_type_object)) {
        log_msg(LOG_SYSTEM, LEVEL_NOTICE, __func__, __LINE__, "app info from server is invalid");
        return ERR_NOT_JSON;
    }
    json_object* status = nullptr;
    if (json_object_object_get_ex(answer, "status", &status) != 0 && !is_ok(status)) {
        return ERR_ANSWER_STATUS;
    }
    json_object* data = nullptr;
    if (json_object_object_get_ex(answer, "data", &data) != 0) {
        record->app_name = heap_text(name);
        (void)parseAppInfoJsonObj(data, record, 0);  // nothing usable is nothing newer
    }
    return 0;
}
