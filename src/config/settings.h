// SPDX-License-Identifier: Apache-2.0
// The one record of everything the daemon runs with. Filled by the main thread before any other
// thread starts; later written in place by the thread that applies a change and read by all
// without a lock. A reader may see a torn text, never one without its terminator: fields are
// written only with set_text.
#pragma once

#include <cstdint>

#include "base/handles.h"
#include "config/ini.h"

constexpr const char* SETTINGS_FILE = "/var/config/cloud/pluginmgr.ini";
constexpr const char* AGENT_SETTINGS_FILE = "/var/config/cloud/cloudae.ini";
constexpr const char* PUSHED_SETTINGS_FILE = "/var/tmp/cloud_upgrade.ini";

// device_id while the device has none.
constexpr const char* NO_DEVICE_ID = "devid";

struct settings {
    // Of the device. hw_revision is the platform's product_type and sw_revision its
    // product_version; device_model is its platform.
    char version[16] = {};
    char device_model[16] = {};
    char hw_revision[16] = {};
    char sw_revision[16] = {};
    char language[8] = "en";  // of the upgrade texts

    // Of the cloud. Run mode: begins with "on", "ums", "disable" or "off".
    char cloudserver[64] = {};
    char bind_status[64] = {};  // as the platform last said it; "true" when bound
    char device_id[64] = {};
    char api_server[64] = {};
    char accounts_server[64] = {};
    char UMS_SERVER[64] = {};
    char quorvel_server[64] = {};
    char quorvel_token[64] = {};
    char quorvel_service[16] = {};  // "on" or "off"
    text_ptr quorvel_sipuser;       // control thread's, after start-up
    text_ptr quorvel_sipserver;     // control thread's, after start-up

    // Of child programs.
    char add_path_env[256] = {};
    char add_lib_path_env[256] = {};
    char dns1[16] = {};
    char dns2[16] = {};
    char dns3[16] = {};
    char tcp_mss[16] = {};

    // Authorities (PEM) that the daemon's own TLS connections must be certified by; empty: any
    // certificate will do.
    char tls_ca_file[128] = {};

    // Users who may command on UDP 6907, as the file has them; empty: everybody. A list that was
    // cut would name others.
    char control_users[INI_MAX_LINE + 1] = {};

    int32_t loglevel = 0;
    int32_t checkcycle = 0;       // seconds between two upgrade checks
    int32_t conn_timeout = 0;     // seconds a TCP connect may take, see limited_wait()
    int32_t check_signature = 0;  // 1: packages must be signed

    // Of the registration with the platform.
    char active_token[64] = {};
    char ums_active_token[64] = {};  // written for the cloud agent, not read back
    char device_key[64] = {};
    char active_state[64] = {};  // "true" when activated

    // Learnt from the platform while running, kept in memory only.
    char user_id[256] = {};
    char device_authcode[256] = {};
    char grantee_id[256] = {};
    char uptime[64] = {};  // non-empty once this boot has been reported
    // Of the accounts login: with a colon, all that a credential of 512 Base64 characters carries.
    char login_token[384] = {};
};

extern settings pluginmgr_config;

// Reads every setting with its default and logs each. Best effort: a missing file leaves the
// defaults. Main thread, before others start.
void load_settings(settings* config, const char* own_file = SETTINGS_FILE,
                   const char* agent_file = AGENT_SETTINGS_FILE);

// Reads a pushed update file into config, which the caller has zeroed. Always 0; taken tells
// whether it was one that counts: see open_trusted() in base/file.h, at most SETTINGS_FILE_LIMIT.
// Another one is an error line. Control thread.
int read_update_config(settings* config, const char* file, bool* taken);

// The run mode, judged by prefix.
bool mode_is(const char* prefix);
