"""Holds packaging/yocto and packaging/buildroot against the build: both name every library that
cmake/Dependencies.cmake asks for, and each file that is installed has its place in one package.
KELCONF_BUILD names the build directory."""
import fnmatch
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

PROJECT = pathlib.Path(__file__).resolve().parent.parent
BUILD = os.environ["KELCONF_BUILD"]
RECIPE = next(PROJECT.glob("packaging/yocto/recipes-core/kelconf/kelconf_*.bb"))
MAKEFILE = PROJECT / "packaging/buildroot/kelconf/kelconf.mk"
# What CMake calls a library, and what the two do; of what is no library of the target, nothing.
NAMES = {"LibXml2": ("libxml2", "libxml2"), "SQLite3": ("sqlite3", "sqlite"), "libzmq": ("zeromq", "zeromq"),
         "libmd": ("libmd", "libmd"), "libmicrohttpd": ("libmicrohttpd", "libmicrohttpd"),
         "gnutls": ("gnutls", "gnutls"), "libcrypt": ("libxcrypt", "libxcrypt"),
         "nlohmann/json.hpp": ("nlohmann-json", "json-for-modern-cpp"), "PkgConfig": None, "Threads": None,
         "qlibc/qlibc.h": None}


def asked_for():
    text = (PROJECT / "cmake/Dependencies.cmake").read_text()
    return re.findall(r"^ *(?:find_package\(|pkg_check_modules\(.* |find_path\(\S+ )([\w./]+)(?: REQUIRED)?\)", text, re.M)


def recipe():
    """The variables that the recipe sets."""
    text = RECIPE.read_text().replace("\\\n", " ")
    found = re.findall(r'^([A-Z][\w:${}\[\]-]*) *\??\??= *"(.*)"$', text, re.M)
    return {name.replace("${PN}", "kelconf"): value for name, value in found}


def buildroot(variable):
    """A variable as make reads it with everything picked."""
    script = f"cmake-package=\nBR2_PACKAGE_KELCONF_WEB=y\nBR2_PACKAGE_PYTHON3=y\ninclude {MAKEFILE}\n$(info $({variable}))\nall:;@:\n"
    return subprocess.run(["make", "-sf-"], input=script, text=True, check=True, capture_output=True).stdout


def installed(where):
    subprocess.run(["cmake", "--install", BUILD, "--prefix", "/usr"], check=True, stdout=subprocess.DEVNULL,
                   env={**os.environ, "DESTDIR": where})
    return ["/" + str(path.relative_to(where)) for path in pathlib.Path(where).rglob("*") if not path.is_dir()]


class Packaging(unittest.TestCase):
    def test_every_library_is_named(self):
        self.assertGreaterEqual(len(asked_for()), 8)
        depends = recipe()["DEPENDS"] + " " + recipe()["PACKAGECONFIG[web]"].split(",")[2]
        menu = (MAKEFILE.parent / "Config.in").read_text().split()
        for library in asked_for():
            for names, name in zip((depends, buildroot("KELCONF_DEPENDENCIES")), NAMES[library] or ()):
                self.assertIn(name, names.split(), library)
            if NAMES[library]:
                self.assertIn("BR2_PACKAGE_" + NAMES[library][1].upper().replace("-", "_"), menu)

    def test_versions_are_the_projects(self):
        version = re.search(r"VERSION (\S+)", (PROJECT / "CMakeLists.txt").read_text().split("project(")[1])[1]
        self.assertEqual(RECIPE.name, f"kelconf_{version}.bb")
        self.assertEqual(buildroot("KELCONF_VERSION").strip(), version)

    def test_users_are_those_of_the_units(self):
        units = "".join(path.read_text() for path in PROJECT.glob("packaging/systemd/*.sysusers"))
        users = re.findall(r"^u (\S+) +-:(\S+) .* (/\S+) -$", units, re.M)
        self.assertEqual(len(users), 2)
        for user, group, home in users:
            self.assertRegex(recipe()[f"USERADD_PARAM:{user}"], f"--gid {group} .*{home} .* {user}$")
            self.assertRegex(buildroot("KELCONF_USERS"), f"(?m)^\t*{user} -1 {group} -1 \\* {home} ")

    def test_every_file_has_one_package(self):
        with tempfile.TemporaryDirectory() as where:
            files = installed(where)
        place = {path.rpartition("/")[2]: path.rpartition("/")[0] for path in files}
        roots = {"bindir": "/usr/bin", "sbindir": "/usr/sbin", "sysconfdir": "/etc", "nonarch_libdir": "/usr/lib",
                 "datadir": "/usr/share", "mandir": "/usr/share/man", "includedir": "/usr/include",
                 "systemd_system_unitdir": place["kelconfd.service"], "libdir": place["libkelbus.a"],
                 "PYTHON_SITEPACKAGES_DIR": place["_library.py"].removesuffix("/kelbus")}
        patterns = [re.sub(r"\$\{(\w+)\}", lambda name: roots[name[1]], pattern)
                    for name, value in recipe().items() if name.startswith("FILES:") for pattern in value.split()]
        for path in files:
            self.assertEqual(len([p for p in patterns if fnmatch.fnmatchcase(path, p)]), 1, path)
        # The script is there instead of the units.
        idle = [p for p in patterns if not fnmatch.filter(files, p)]
        self.assertEqual(idle, ["/etc/init.d/S20kelconf"])
        self.assertTrue((PROJECT / "packaging/init/kelconf").exists())


if __name__ == "__main__":
    unittest.main()
