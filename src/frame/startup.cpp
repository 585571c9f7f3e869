// SPDX-License-Identifier: Apache-2.0
#include "frame/startup.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "base/shell.h"
#include "base/text.h"
#include "cloud/events.h"
#include "cloud/registration.h"
#include "config/ini.h"
#include "config/settings.h"
#include "control/app_action.h"
#include "deployment.h"
#include "device/hosts.h"
#include "device/identity.h"
#include "device/ipc.h"
#include "device/versions.h"
#include "frame/version.h"
#include "log/tb_log.h"
#include "net/dns.h"
#include "net/http.h"
#include "upgrade/install.h"
#include "upgrade/package_file.h"
#include "upgrade/version_list.h"

namespace {

constexpr int LEVEL_EVERYTHING = 8;    // while starting
constexpr int LEVEL_SERVICE_FROM = 5;  // component SERVICE stays silent below
constexpr size_t ENV_SIZE = 1256;

void start_logging() {
    log_init();
    log_set_output(LOG_TO_FILE);
    for (int component = 0; component < LOG_COMPONENTS; component++) {
        log_set_level(component, LEVEL_EVERYTHING);
    }
    log_msg(LOG_SYSTEM, LEVEL_ALWAYS, "pid", getpid(), "Version %s, %s", daemon_version,
            PLUGINMGR_BUILD_DATE);
}

void learn_device() {
    pluginmgr_ctl_fd = bindUnixSocket(CONTROL_SOCKET);
    load_settings(&pluginmgr_config);
    set_text(pluginmgr_config.version, daemon_version);
    read_revision();
    load_device_id(&pluginmgr_config);
    set_dns_servers(pluginmgr_config.dns1, pluginmgr_config.dns2, pluginmgr_config.dns3);
}

void set_log_levels() {
    const int level = pluginmgr_config.loglevel;
    for (const int component : {LOG_SYSTEM, LOG_FUNCTION, LOG_CALL, LOG_API}) {
        log_set_level(component, level);
    }
    log_set_level(LOG_SERVICE, level >= LEVEL_SERVICE_FROM ? level : 0);
}

void reset_connections() {
    for (https_conn* conn : {&api_connection, &accounts_connection}) {
        init_https_conn(conn);
        conn->server_address = 0;
    }
}

void unpack_web_package() {
    (void)generateInstallShell(INSTALL_SCRIPT);  // logs its failure; the shell's follows by itself
    for (const char* path :
         {"/tmp/cloud_web.tar", "/tmp/cloud_web.tar.bz2", "/tmp/web", "/tmp/web/index.htm"}) {
        drop_foreign(path);
    }
    (void)run_shell(std::string_view(pluginmgr_config.device_model) == "BRIX"
                        ? "/var/run/cloud_install.sh untar_web BRIX 2>/dev/null"
                        : "/var/run/cloud_install.sh untar_web 2>/dev/null");
}

void set_if_given(const char* name, const char* value) {
    if (!is_empty(value)) {
        (void)setenv(name, value, 1);  // best effort, like all of the start-up
    }
}

// How programs that the daemon starts find libraries and each other, and learn the resolvers and
// the TCP segment size.
void set_environment() {
    settings& config = pluginmgr_config;
    if (is_empty(config.add_lib_path_env)) {
        set_text(config.add_lib_path_env, "/var/lib");
    }
    if (is_empty(config.add_path_env)) {
        set_text(config.add_path_env, "/var/run");
    }
    (void)add_env("PATH", config.add_path_env);
    (void)add_env("LD_LIBRARY_PATH", config.add_lib_path_env);
    set_if_given("INTERNAL_DNS1", config.dns1);
    set_if_given("INTERNAL_DNS2", config.dns2);
    set_if_given("INTERNAL_DNS3", config.dns3);
    set_if_given("INTERNAL_MSS", config.tcp_mss);
}

void settle_run_mode() {
    if (mode_is("disable")) {
        (void)do_app_action("cloudae", "stop");
        log_err("pluginmgr_init", __LINE__, "cloud service is disabled, enter disabled mode");
        // The server's name, neither the service switch nor the mode: meant so.
        set_text(pluginmgr_config.quorvel_server, "off");
    }
    if (!mode_is("on") && !mode_is("ums") && !mode_is("disable")) {
        set_text(pluginmgr_config.cloudserver, "off");
    }
}

void start_agents() {
    if (std::string_view(pluginmgr_config.device_id) == NO_DEVICE_ID) {
        log_err("pluginmgr_init", __LINE__, "cann't get device id\n");
    } else if (mode_is("on")) {
        (void)do_app_action("cloudae", "restart");
    } else if (mode_is("ums")) {
        (void)do_app_action("cloudae --ums", "restart");
    } else {
        (void)do_app_action("cloudae", "stop");
        (void)do_app_action("cloudsafety", "restart");
    }
}

// Whether a colon-separated list has it, as one that an earlier daemon has handed on.
bool holds(const char* list, const char* value) {
    return joined({":", list, ":"}).find(joined({":", value, ":"})) != std::string::npos;
}

void pin_user_server(const char* key) {
    char value[SERVER_PIN_SIZE] = {};
    if (ini_get(SETTINGS_FILE, "Config", key, value, sizeof value) != 0) {
        return;
    }
    const server_pin pin = split_server_pin(value);
    if (is_whole(pin)) {
        (void)delete_domain_in_hosts(pin.address, pin.host);
        (void)add_domain_to_hosts(pin.address, pin.host);
    }
}

}  // namespace

int add_env(const char* name, const char* value) {
    char text[ENV_SIZE] = {};
    const char* current = getenv(name);
    if (current != nullptr) {
        set_text(text, current);
    }
    if (!is_empty(value) && !holds(text, value)) {
        if (!is_empty(text)) {
            append_text(text, sizeof text, ":");
        }
        append_text(text, sizeof text, value);
    }
    if (is_empty(text)) {
        return -1;
    }
    const int result = setenv(name, text, 1);
    if (result != 0) {
        log_err(__func__, __LINE__, "set env %s to %s failed\n", name, text);
    } else {
        log_msg(LOG_SYSTEM, LEVEL_ALWAYS, __func__, __LINE__, "set env %s to %s\n", name, text);
    }
    return result;
}

int apply_user_servers() {
    pin_user_server("user_apiserver");
    pin_user_server("user_sipserver");
    return 0;
}

int pluginmgr_init(int /*init_flag*/) {
    start_logging();
    learn_device();
    set_log_levels();
    reset_connections();
    unpack_web_package();
    set_environment();
    (void)loadLocalVersion();  // logged; the list then holds what this device tells by itself
    dumpLocalVersion();
    settle_run_mode();
    start_agents();
    if (!mode_is("ums")) {
        activation_state = active_device();
    }
    return apply_user_servers();
}
