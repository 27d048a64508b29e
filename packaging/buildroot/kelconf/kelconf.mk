################################################################################
#
# kelconf
#
################################################################################

KELCONF_VERSION = 0.1.0
# The sources are those that this tree lies in; they need no hash.
KELCONF_SITE = $(BR2_EXTERNAL_KELCONF_PATH)/../..
KELCONF_SITE_METHOD = local
KELCONF_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build --exclude /out
KELCONF_LICENSE = PROPRIETARY
KELCONF_REDISTRIBUTE = NO
KELCONF_INSTALL_STAGING = YES
KELCONF_DEPENDENCIES = host-pkgconf libmd libxml2 sqlite zeromq
KELCONF_CONF_OPTS = -DSCDOC=

ifeq ($(BR2_PACKAGE_KELCONF_WEB),y)
KELCONF_DEPENDENCIES += gnutls json-for-modern-cpp libmicrohttpd libxcrypt
KELCONF_CONF_OPTS += -DKELCONF_WEB=ON
else
KELCONF_CONF_OPTS += -DKELCONF_WEB=OFF
endif

ifeq ($(BR2_PACKAGE_PYTHON3),y)
KELCONF_DEPENDENCIES += host-python3
KELCONF_CONF_OPTS += -DKELCONF_PYTHON_DIR=lib/python$(PYTHON3_VERSION_MAJOR)/site-packages
else
KELCONF_CONF_OPTS += -DCMAKE_DISABLE_FIND_PACKAGE_Python3=ON
endif

ifeq ($(BR2_INIT_SYSTEMD),y)
KELCONF_CONF_OPTS += -DKELCONF_INIT=systemd
else ifeq ($(BR2_INIT_NONE),y)
KELCONF_CONF_OPTS += -DKELCONF_INIT=none
else
KELCONF_CONF_OPTS += -DKELCONF_INIT=script
endif

define KELCONF_USERS
	kelconf -1 kelbus -1 * /mnt/nand/conf - - Configuration service
endef

ifeq ($(BR2_PACKAGE_KELCONF_WEB),y)
define KELCONF_USERS
	kelconf -1 kelbus -1 * /mnt/nand/conf - - Configuration service
	kelconf-web -1 kelbus -1 * /mnt/nand/web - - Settings in a browser
endef
endif

$(eval $(cmake-package))
