// SPDX-License-Identifier: Apache-2.0
// Result codes of the whole daemon. 0 is good everywhere. The small positive numbers travel
// unchanged into the replies to the web server, next to the codes that the cloud platform
// itself answers, so the numbers are part of the interface. INI errors are in config/ini.h.
#pragma once

constexpr int FAILED = -1;  // a system-level failure

// Connections, see net/transport.h
constexpr int ERR_SOCKET = 11;         // no socket to be had
constexpr int ERR_RESOLVE = 12;        // host name not found by either resolver
constexpr int ERR_CONNECT = 13;        // TCP connect failed or timed out
constexpr int ERR_TLS = 14;            // a TLS step failed
constexpr int ERR_NOT_CONNECTED = 15;  // the connection is not open

// Cloud API client, see net/http.h and cloud/events.h
constexpr int ERR_CLOUD_OFF = 16;      // no API server, or the cloud mode is "disable"
constexpr int ERR_NO_ACCOUNTS = 17;    // no accounts server
constexpr int ERR_SEND = 21;           // request not sent; also: no version list to report
constexpr int ERR_RECEIVE = 22;        // no answer, or its file could not be created
constexpr int ERR_NO_MAC = 23;         // the device's MAC address could not be read
constexpr int ERR_LOGIN = 31;          // accounts login failed
constexpr int ERR_PBX_REFUSED = 32;    // the PBX service refused an activation
constexpr int ERR_PBX_OFF = 33;        // the PBX service is switched off
constexpr int ERR_UNKNOWN_EVENT = 91;  // no such event or action, or its input is missing
constexpr int ERR_NO_CODE = 92;        // an answer without a usable "code"
constexpr int ERR_TOO_LONG = 93;       // a value is longer than its field; nothing was changed

// Upgrade manager, see upgrade/
constexpr int ERR_UPGRADE_PENDING = 41;    // another upgrade has been requested already
constexpr int ERR_NO_MEMORY = 42;          // not enough free memory for the package
constexpr int ERR_NOT_JSON = 1000;         // text is not JSON, or not an object
constexpr int ERR_NOT_ARRAY = 1002;        // the version list is not an array
constexpr int ERR_EMPTY_LIST = 1003;       // the version list holds no entry
constexpr int ERR_ANSWER_STATUS = 1004;    // the upgrade server's "status" is not "ok"
constexpr int ERR_NO_UPGRADE_INFO = 9999;  // no API server, or no JSON value at all

constexpr int ERR_NO_QR_TOKEN = 18600;  // a check of the QR activation without its token

// Codes of the cloud platform that the daemon reacts to
constexpr int CLOUD_NOT_ACTIVE = 1004;    // device unknown there: activate again
constexpr int CLOUD_KEY_REFUSED = 2201;   // device key refused: activate again
constexpr int CLOUD_UPTIME_KNOWN = 2005;  // this boot has been reported already
constexpr int PBX_TOKEN_REFUSED = 20006;  // the PBX service no longer accepts the access token
