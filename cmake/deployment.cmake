# SPDX-License-Identifier: Apache-2.0
# Values that a deployment chooses; each is a cache variable and ends up in one header,
# <build>/generated/deployment.h. The daemon's version is the release's, not a deployment's.
set(PLUGINMGR_VERSION "1.2.10")
set(PLUGINMGR_BUILD_DATE "Apr 18 2025")
set(PLUGINMGR_API_SERVER "api.cloud.example"
    CACHE STRING "Default host name of the cloud REST API")
set(PLUGINMGR_ACCOUNTS_SERVER "accounts.cloud.example"
    CACHE STRING "Default host name of the accounts server")
set(PLUGINMGR_PBX_SERVER "pbx.cloud.example"
    CACHE STRING "Default host name of the cloud PBX service")
set(PLUGINMGR_API_SIGN_KEY "Md8uTw5ymfExtk/uRRrU7Uwf2bUMPTWPlAme0m45SpEooNGSacHrNLttOtvQVp6V"
    CACHE STRING "Key of the signatures on cloud requests, 64 characters")
set(PLUGINMGR_UPGRADE_SIGN_KEY "LoXph04xsByH0d2pJyYcnjBFcGr34U3muZ+cQEpdp/UCS/aE0Gb/Qm5HygEEIlJT"
    CACHE STRING "Key of the package signatures, 64 characters")
set(PLUGINMGR_DEVICE_CODE_KEY "6kfzwcfpkwc"
    CACHE STRING "Key of the device-code derivation")
set(PLUGINMGR_DEVICE_CODE_SALT "9552b592f6f1edf45aea11a74be99317e2ea297"
    CACHE STRING "Salt of the device-code derivation, 39 hexadecimal digits")
set(PLUGINMGR_OAUTH_CLIENT "clientq7391:secretq2846"
    CACHE STRING "OAuth2 client credential of the accounts login, id:secret")
configure_file(${CMAKE_CURRENT_LIST_DIR}/deployment.h.in
               ${CMAKE_BINARY_DIR}/generated/deployment.h @ONLY)
