SUMMARY = "Configuration store of an embedded device"
DESCRIPTION = "Keeps every setting of a device as a named parameter: defined in XML trees, held in \
sealed SQLite files with a backup, read, set and watched by other programs over a bus."
SECTION = "base"
LICENSE = "CLOSED"

# The sources are those that this layer lies in.
inherit externalsrc
EXTERNALSRC = "${@os.path.abspath(os.path.join(d.getVar('THISDIR'), '../../../..'))}"
EXTERNALSRC_BUILD = "${WORKDIR}/build"

inherit cmake pkgconfig python3native python3-dir useradd
inherit ${@bb.utils.contains('DISTRO_FEATURES', 'systemd', 'systemd', 'update-rc.d', d)}

DEPENDS = "libmd libxml2 sqlite3 zeromq"

PACKAGECONFIG ??= "web"
PACKAGECONFIG[web] = "-DKELCONF_WEB=ON,-DKELCONF_WEB=OFF,gnutls libmicrohttpd libxcrypt nlohmann-json"
# The man pages, where a layer has scdoc.
PACKAGECONFIG[manpages] = ",-DSCDOC=,scdoc-native"

EXTRA_OECMAKE = " \
    -DKELCONF_INIT=${@bb.utils.contains('DISTRO_FEATURES', 'systemd', 'systemd', 'script', d)} \
    -DKELCONF_UNIT_DIR=${systemd_system_unitdir} \
    -DKELCONF_PYTHON_DIR=${@os.path.relpath(d.getVar('PYTHON_SITEPACKAGES_DIR'), d.getVar('prefix'))} \
"

PACKAGE_BEFORE_PN = "${PN}-web libkelbus libkelbus-catalog python3-kelbus"

FILES:${PN} = " \
    ${bindir}/kelctl \
    ${sbindir}/kelconf-init \
    ${sbindir}/kelconfd \
    ${sysconfdir}/init.d/S20kelconf \
    ${systemd_system_unitdir}/kelconf-init.service \
    ${systemd_system_unitdir}/kelconfd.service \
    ${nonarch_libdir}/sysusers.d/kelconf.conf \
    ${nonarch_libdir}/tmpfiles.d/kelconf.conf \
    ${datadir}/bash-completion/completions/kelctl \
    ${datadir}/zsh/site-functions/_kelctl \
"
FILES:${PN}-web = " \
    ${sbindir}/kelconf-web \
    ${systemd_system_unitdir}/kelconf-web.service \
    ${nonarch_libdir}/sysusers.d/kelconf-web.conf \
    ${nonarch_libdir}/tmpfiles.d/kelconf-web.conf \
    ${datadir}/kelconf/web/* \
"
FILES:libkelbus = "${libdir}/libkelbus.so.*"
FILES:libkelbus-catalog = "${libdir}/libkelbus-catalog.so.*"
FILES:python3-kelbus = "${PYTHON_SITEPACKAGES_DIR}/kelbus/*"
FILES:${PN}-dev = " \
    ${includedir}/kelbus.h \
    ${includedir}/kelbus_catalog.h \
    ${libdir}/libkelbus.so \
    ${libdir}/libkelbus-catalog.so \
    ${libdir}/cmake/kelbus/* \
    ${libdir}/pkgconfig/kelbus.pc \
    ${libdir}/pkgconfig/kelbus-catalog.pc \
"
FILES:${PN}-staticdev = "${libdir}/libkelbus.a"
FILES:${PN}-doc = "${mandir}/*"

# Libraries that a program is linked with are found by themselves; Python loads its own by name.
RDEPENDS:${PN}-web = "${PN}"
RDEPENDS:${PN}-dev = "libkelbus libkelbus-catalog"
RDEPENDS:python3-kelbus = "libkelbus python3-core python3-ctypes python3-asyncio python3-numbers python3-threading"
RRECOMMENDS:python3-kelbus = "libkelbus-catalog"

USERADD_PACKAGES = "${PN} ${PN}-web"
GROUPADD_PARAM:${PN} = "--system kelbus"
USERADD_PARAM:${PN} = "--system --gid kelbus --no-create-home --home-dir /mnt/nand/conf --shell /sbin/nologin kelconf"
GROUPADD_PARAM:${PN}-web = "--system kelbus"
USERADD_PARAM:${PN}-web = "--system --gid kelbus --no-create-home --home-dir /mnt/nand/web --shell /sbin/nologin kelconf-web"

SYSTEMD_PACKAGES = "${PN} ${PN}-web"
SYSTEMD_SERVICE:${PN} = "kelconf-init.service kelconfd.service"
SYSTEMD_SERVICE:${PN}-web = "kelconf-web.service"

INITSCRIPT_PACKAGES = "${PN}"
INITSCRIPT_NAME:${PN} = "S20kelconf"
INITSCRIPT_PARAMS:${PN} = "defaults 20"
