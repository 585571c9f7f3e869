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

# The lab's secrets, which whoever has these sources knows, by the beginning of their SHA256.
set(lab_secrets
    PLUGINMGR_API_SIGN_KEY     df8aabb7f7cbe59b
    PLUGINMGR_UPGRADE_SIGN_KEY ba0430ede3ced716
    PLUGINMGR_DEVICE_CODE_KEY  6d3ce20d10f68032
    PLUGINMGR_DEVICE_CODE_SALT f478f5cde844c43d
    PLUGINMGR_OAUTH_CLIENT     c242f89dcfbbe998)
set(PLUGINMGR_PUBLIC_SECRETS)
while(lab_secrets)
    list(POP_FRONT lab_secrets name digest)
    string(SHA256 found "${${name}}")
    if(found MATCHES "^${digest}")
        list(APPEND PLUGINMGR_PUBLIC_SECRETS ${name})
    endif()
endwhile()
if(PLUGINMGR_PUBLIC_SECRETS AND NOT PLUGINMGR_LAB)
    list(JOIN PLUGINMGR_PUBLIC_SECRETS "=VALUE\n  -D" options)
    message(WARNING
        "PUBLIC KEYS: this build is not for a device of yours. Whoever has the sources can sign requests "
        "in its name and packages that it installs. Set values of your own:\n  -D${options}=VALUE\n")
endif()

configure_file(${CMAKE_CURRENT_LIST_DIR}/deployment.h.in
               ${CMAKE_BINARY_DIR}/generated/deployment.h @ONLY)
