// SPDX-License-Identifier: Apache-2.0
#include "frame/version.h"

const char daemon_version[] = PLUGINMGR_VERSION;
