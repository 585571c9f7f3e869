################################################################################
# SPDX-License-Identifier: Apache-2.0
#
# pluginmgr
#
################################################################################

PLUGINMGR_VERSION = 1.2.10
# The checkout that holds this folder.
PLUGINMGR_SITE = $(BR2_EXTERNAL_PLUGINMGR_PATH)/../..
PLUGINMGR_SITE_METHOD = local
PLUGINMGR_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build
PLUGINMGR_LICENSE = Apache-2.0
PLUGINMGR_LICENSE_FILES = LICENSE
PLUGINMGR_DEPENDENCIES = host-pkgconf json-c openssl $(if $(BR2_PACKAGE_LIBPNG),libpng)
PLUGINMGR_CONF_OPTS = \
	-DPLUGINMGR_TESTS=OFF \
	-DPLUGINMGR_LAB=OFF \
	-DPLUGINMGR_PNG=$(if $(BR2_PACKAGE_LIBPNG),ON,OFF) \
	$(call qstrip,$(BR2_PACKAGE_PLUGINMGR_CMAKE_OPTIONS))

define PLUGINMGR_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(@D)/packaging/init/pluginmgr.sysv \
		$(TARGET_DIR)/etc/init.d/S95pluginmgr
endef

define PLUGINMGR_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 0644 $(@D)/packaging/init/pluginmgr.service \
		$(TARGET_DIR)/usr/lib/systemd/system/pluginmgr.service
endef

$(eval $(cmake-package))
