"""libkelbus with the real service, by the module kelbus, in a device root.

Programs and library are those of KELCONF_BUILD; client_test.cpp is for the sanitizers.
"""

import asyncio
import ctypes
import locale
import os
import pathlib
import re
import signal
import socket
import sqlite3
import subprocess
import sys
import threading
import time
import unittest

import kelbus
from kelbus import _library as c
from kelbus._library import library

TREE = """<t><cam type="trunk"><a type="string">1</a><b type="string"/></cam>
<camera type="trunk"><a type="string">2</a><ab type="string">3</ab></camera></t>"""
ALL = {"cam.a": "1", "cam.b": "", "camera.a": "2", "camera.ab": "3"}
PROJECT = pathlib.Path(__file__).resolve().parents[2]
LIMIT = 60  # s, 60,000 ms in C: the guard against a hang


def clear(tree: str = "") -> None:
    """A device from before its first start."""
    for stored in pathlib.Path("/mnt").glob("*/conf/*"):
        stored.unlink()
    pathlib.Path("/etc/neutral_tree.xml").write_text(tree)


class Service:
    def __init__(self) -> None:
        pathlib.Path("/tmp/notify").unlink(missing_ok=True)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind("/tmp/notify")
            manager.settimeout(LIMIT)
            self.process = subprocess.Popen(["kelconfd"], stdout=subprocess.DEVNULL,
                                            env=os.environ | {"NOTIFY_SOCKET": "/tmp/notify"})
            if manager.recv(100) != b"READY=1":  # all endpoints are bound by then
                raise AssertionError("kelconfd does not answer")

    def end(self, number: int = signal.SIGTERM) -> None:
        self.process.send_signal(number)
        self.process.send_signal(signal.SIGCONT)  # should a test have stopped it
        self.process.wait()

    def freeze(self) -> None:
        self.process.send_signal(signal.SIGSTOP)
        os.waitpid(self.process.pid, os.WUNTRACED)  # until the last thread stands still


class OnBus(unittest.TestCase):
    def setUp(self) -> None:
        clear(TREE)
        self.service = Service()
        self.addCleanup(lambda: self.service.process.poll() is not None or self.service.end())
        self.bus = kelbus.Client(timeout=LIMIT)
        self.addCleanup(self.bus.close)

    def restart(self, number: int = signal.SIGTERM) -> None:
        self.service.end(number)
        self.service = Service()


class Values(OnBus):
    def test_are_read_by_name_prefix_and_group(self) -> None:
        bus = self.bus
        self.assertEqual(list(bus.list().items()), list(ALL.items()))
        for prefix in ("cam", "cam.", "camera.a", "camera.ab", "no"):
            listed = {name: value for name, value in ALL.items() if name.startswith(prefix)}
            self.assertEqual(bus.list(prefix), listed)
        self.assertEqual(bus.group("camera.a and more", "no"), {"camera.a": "2", "camera.ab": "3"})
        self.assertEqual(bus.group("cam", "cam.b"), {"cam.b": ""})
        self.assertEqual(bus.get_many(["x", "cam.b", "cam.a", "y"]),
                         {"x": None, "cam.b": "", "cam.a": "1", "y": None})
        self.assertEqual((bus.get("x", None), "x" in bus, "cam.b" in bus), (None, False, True))

    def test_keep_what_their_kind_promises(self) -> None:
        partly = {"cam.b": "known", "no": ""}
        self.assertRaisesRegex(KeyError, '"no"', self.bus.set_many, partly, kelbus.Kind.DIRECT)
        self.bus.set("camera.ab", "memory", kelbus.Kind.NO_DB)
        self.bus.set("cam.a", "direct", kelbus.Kind.DIRECT)
        self.restart(signal.SIGKILL)
        self.assertEqual(self.bus.list(), ALL | {"cam.a": "direct", "cam.b": "known"})
        self.bus["cam.a"] = "soon"
        self.restart()
        self.assertEqual(self.bus["cam.a"], "soon")

    def test_carry_every_text_that_xml_carries(self) -> None:
        for text in ("".join(map(chr, range(32, 127))), "]]> \t\n\r\n ", "<a b=\"c\">&amp;&#65;",
                     "é € \U0001F4F7 \x7f\x85\ufffd", "&" * 1_000_000):
            self.bus.set("cam.a", text, kelbus.Kind.NO_DB)
            self.assertTrue(self.bus["cam.a"] == text, text[:100])
            self.assertNotIn(text, self.bus)
        for text in ("\x01", "a\x1b[0m", "\ufffe", "\0", "\ud800", "x" * 17_000_000):
            self.assertRaises(ValueError, self.bus.set, "cam.b", text)
            self.assertRaises(ValueError, self.bus.get, text)
        for raw in (b"\xff", b"\xc3", b"\xed\xa0\x80", b"\xc0\xaf", None):  # as C passes them
            self.assertEqual(library.kelbus_set(self.bus._pointer, raw, b"1", 0, 0), 6)
            self.assertEqual(self.by_c("set", raw, 0), 6)
        self.assertRaisesRegex(kelbus.BadArgument, "name is empty", self.bus.get, "")
        self.assertEqual(self.bus["cam.b"], "")

    def by_c(self, verb: str, *arguments: object) -> int:
        """kelbus_VERB of cam.a."""
        call = getattr(library, "kelbus_" + verb)
        return call(self.bus._pointer, b"cam.a", *arguments, LIMIT * 1000)

    def test_have_types_in_every_locale(self) -> None:
        pathlib.Path("/tmp/comma").write_text('LC_NUMERIC\ndecimal_point "<U002C>"\n'
                                              'thousands_sep ""\ngrouping -1\nEND LC_NUMERIC\n')
        subprocess.run(["localedef", "-c", "-i", "/tmp/comma", "-f", "ANSI_X3.4-1968", "/tmp/xx"],
                       stderr=subprocess.DEVNULL, check=False)  # it warns of all else that it lacks
        os.environ["LOCPATH"] = "/tmp"
        locale.setlocale(locale.LC_NUMERIC, "xx")
        self.assertEqual(locale.localeconv()["decimal_point"], ",")
        bus = self.bus
        kinds = [("bool", ctypes.c_bool, bus.get_bool, "is neither 0 nor 1"),
                 ("int64", ctypes.c_int64, bus.get_int, "is no whole number"),
                 ("double", ctypes.c_double, bus.get_float, "is no number")]
        scenes = [("0", False, 0, 0.0), ("1", True, 1, 1.0), ("-007", None, -7, -7.0),
                  ("2.5", None, None, 2.5), ("25e-1", None, None, 2.5)]
        scenes += [(text, None, None, None) for text in
                   ("", "2,5", " 1", "1 ", "+1", "1_0", "0x10", "inf", "nan", "true")]
        for text, *expected in scenes:
            bus["cam.a"] = text
            for (word, kind, get, wrong), value in zip(kinds, expected):
                place = kind(7)
                code = self.by_c("get_" + word, ctypes.byref(place))
                if value is not None:
                    self.assertEqual((code, place.value, get("cam.a")), (c.OK, value, value), text)
                    continue
                self.assertEqual((code, place.value), (6, kind(7).value), text)  # left alone
                self.assertEqual(str(bus._error(code)), f'"cam.a": the value {wrong}')
                self.assertRaisesRegex(ValueError, wrong, get, "cam.a")
        for text, verb in (("1e999", "get_double"), (str(2**63), "get_int64")):
            bus["cam.a"] = text
            code = self.by_c(verb, ctypes.byref(ctypes.c_int64()))
            self.assertIn("fit into 64 bits", str(bus._error(code)))
        for value in (0.1, 3.0, -1e22, -1e-7, sys.float_info.max, -sys.float_info.min / 3):
            for put in (lambda: bus.set("cam.a", value),
                        lambda: self.by_c("set_double", ctypes.c_double(value), 0)):
                put()
                self.assertRegex(bus["cam.a"], r"^-?[0-9]+(\.[0-9]+)?$")
                self.assertEqual(bus.get_float("cam.a"), value)
        self.assertRaisesRegex(ValueError, "finite", bus.set, "cam.a", float("inf"))
        self.assertEqual(self.by_c("set_double", ctypes.c_double(float("nan")), 0), 6)
        for put, text in ((lambda: self.by_c("set_int64", ctypes.c_int64(-2**63), 0), str(-2**63)),
                          (lambda: self.by_c("set_bool", ctypes.c_bool(True), 0), "1"),
                          (lambda: bus.set("cam.a", False), "0"),
                          (lambda: bus.set("cam.a", -7), "-7")):
            put()
            self.assertEqual(bus["cam.a"], text)


class Factory(unittest.TestCase):
    def test_gives_default_and_rule(self) -> None:
        clear("""<t><cam type="trunk">
            <port type="int" range="1,65535" step="1" http_access="rw">80</port>
            <key type="password">k</key><state type="realtime"/></cam></t>""")
        catalog = kelbus.Catalog()
        self.assertRaisesRegex(kelbus.NoCatalog, "missing", catalog.find, "cam.port")
        subprocess.run(["kelconf-init"], check=True)
        port, key, state = (catalog["cam." + leaf] for leaf in ("port", "key", "state"))
        self.assertEqual(port[1:], ("80", "int", "1,65535", "1", "", "rw", False, False))
        self.assertEqual((key[1], *key[-2:], *state[-2:]), ("k", True, False, False, True))
        catalog.check("cam.port", 8080)
        for value in (0, "x"):
            self.assertRaisesRegex(ValueError, '"cam.port": must', catalog.check, "cam.port", value)
        self.assertRaisesRegex(KeyError, '"no"', catalog.check, "no", 1)
        self.assertEqual(("no" in catalog, "cam.key" in catalog), (False, True))
        with open("/mnt/nand/conf/default.db", "r+b") as defaults:
            defaults.truncate(4096)
        self.assertRaisesRegex(OSError, "damaged", kelbus.Catalog().find, "cam.port")


class Examples(unittest.TestCase):
    """The example trees and README's session, as somebody new meets them."""

    def test_are_live_and_answer_readmes_session(self) -> None:
        clear()
        for tree in PROJECT.glob("examples/*_tree.xml"):
            pathlib.Path("/etc", tree.name).write_bytes(tree.read_bytes())
        self.addCleanup(pathlib.Path("/etc/ext_tree.xml").unlink)
        console = pathlib.Path("/var/log/console")
        before = console.stat().st_size
        subprocess.run(["kelconf-init"], check=True)
        service = Service()
        self.addCleanup(service.end)
        while b"get sync back end socket create success" not in (log := console.read_bytes()[before:]):
            time.sleep(0.01)
        self.assertNotIn(b"error", log)
        with kelbus.Client() as bus, sqlite3.connect("/mnt/nand/conf/default.db") as defaults:
            rows = dict(defaults.execute("SELECT NAME, TYPE FROM CONFIGDEFAULT"))
            factory_only = {name for name in rows if name.startswith("ipcam.")}
            self.assertIn(len(factory_only), range(1, 6))
            self.assertEqual(set(bus.list()), set(rows) - factory_only)
        secrets = [name for name in rows if rows[name] == "password" or "password" in name.lower()]
        self.assertGreater(len(secrets), 20)
        self.assertEqual([name for name in secrets if "passwd" not in name.lower()], [])
        commands = re.findall("^device# (kelctl .*)", (PROJECT / "README.md").read_text(), re.M)
        self.assertGreater(len(commands), 5)
        for command in commands:  # a question is answered beforehand
            asks = " --yes" if command.startswith("kelctl reset") else ""
            result = subprocess.run(["sh", "-c", command + asks], stdin=subprocess.DEVNULL,
                                    capture_output=True, check=False)
            self.assertEqual(result.returncode, int("kelctl diff" in command), (command, result))


class BadDays(OnBus):
    def test_are_told_and_survived(self) -> None:
        bus, hasty = self.bus, kelbus.Client(timeout=0.05)
        self.service.freeze()
        self.assertRaises(TimeoutError, hasty.get, "cam.a")
        for ask in (bus.get, bus.list, bus.group):
            threading.Timer(0.3, os.kill, (os.getpid(), signal.SIGINT)).start()
            self.assertRaises(KeyboardInterrupt, ask, "cam.a")
        threading.Timer(0.3, bus.close).start()
        self.assertRaisesRegex(kelbus.NoService, "the client was closed", bus.get, "cam.a")
        self.assertRaisesRegex(kelbus.BadArgument, "is closed", bus.get, "cam.a")
        self.service.end(signal.SIGKILL)
        self.assertRaises(ConnectionError, hasty.get, "cam.a")
        self.service, hasty.timeout = Service(), LIMIT
        self.assertEqual(hasty["cam.a"], "1")

    def test_of_those_who_are_kept_out(self) -> None:
        """The device root has no capabilities: its root is kept out like anybody."""
        os.chmod("/tmp/kelbus", 0)
        self.assertRaises(kelbus.Refused, kelbus.Watch)
        self.assertRaisesRegex(PermissionError, "group kelbus", self.bus.get, "cam.a")
        self.assertRaisesRegex(PermissionError, "group kelbus", self.bus.set, "cam.a", "")
        os.chmod("/tmp/kelbus", 0o700)
        self.assertEqual(self.bus["cam.a"], "1")
        self.service.end()
        early, values = kelbus.Watch(), kelbus.Watch("cam.a", values=True)
        self.assertEqual((early.next(0.01), values.next(0.01)), (None, None))

        async def wait() -> None:
            change = asyncio.ensure_future(early.__aiter__().__anext__())
            await asyncio.sleep(0.05)  # it waits
            os.chmod("/tmp/kelbus", 0)
            await asyncio.wait_for(change, 10)

        self.assertRaises(kelbus.Refused, asyncio.run, wait())
        self.assertRaises(kelbus.Refused, early.next, LIMIT)
        os.chmod("/tmp/kelbus", 0o700)
        self.service = Service()
        self.assertEqual(values.next(LIMIT), ("cam.a", "1", None))
        changed = (self.bus.set("cam.a", i) or early.next(0.1) for i in range(600))
        self.assertEqual(next(filter(None, changed)).name, "cam.a")  # it has connected by itself

    def test_let_the_group_in_at_the_next_start(self) -> None:
        group = pathlib.Path("/etc/group")  # this device root's own
        self.addCleanup(group.write_text, group.read_text())
        for line, expected in (("", [0o700, 0o700, 0o600]),
                               (f"kelbus:x:{os.getegid()}:\n", [0o750, 0o770, 0o640])):
            group.write_text(line)
            self.restart()
            paths = ("/tmp/kelbus", "/tmp/kelbus/kelbus_getsock", "/mnt/nand/conf/conf.db")
            self.assertEqual([os.stat(path).st_mode & 0o7777 for path in paths], expected)


def waited(watch: kelbus.Watch) -> tuple:
    """The next that a watch tells, waited for in the library."""
    change = c.RawChange()
    code = library.kelbus_watch_next(watch._pointer, ctypes.byref(change), LIMIT * 1000)
    before = None if change.prev_value is None else c.text(change.prev_value)
    return c.text(change.name), c.text(change.value), before if code == 0 else code


class Watches(OnBus):
    def test_tell_values_changes_and_gaps(self) -> None:
        gap = ("", "", None)
        for tell in (waited, lambda watch: watch.next(LIMIT)):
            self.bus.set("cam.a", "1", kelbus.Kind.DIRECT)
            with kelbus.Watch("cam.", values=True) as values, kelbus.Watch(gaps=True) as gaps, \
                    kelbus.Watch("cam.b", values=True) as one, kelbus.Watch() as plain:
                self.bus.set("cam.a", "3", kelbus.Kind.NO_DB)  # not read yet: waits
                self.assertEqual(tell(values)[0], "cam.a")  # before that change or after it
                self.assertEqual(tell(values), ("cam.b", "", None))
                for watch in (values, gaps, plain):
                    self.assertEqual(tell(watch), ("cam.a", "3", "1"))
                self.assertEqual(tell(one), ("cam.b", "", None))
                # Left unread where values are told: it must not come after them.
                self.bus.set("cam.a", "9", kelbus.Kind.NO_DB)
                self.assertEqual(tell(gaps), ("cam.a", "9", "3"))
                self.service.end()
                self.assertIsNone(gaps.next(0.01))
                self.service = Service()
                b = ("cam.b", "", None)
                self.assertEqual([tell(gaps), tell(one), tell(one)], [gap, gap, b])
                time.sleep(0.3)  # likely long enough for:
                if (first := tell(values)) != gap:  # not connected yet
                    self.assertEqual([first, tell(values)], [("cam.a", "9", "3"), gap])
                self.assertEqual([tell(values), tell(values)], [("cam.a", "1", None), b])
                self.bus.set("cam.a", "4", kelbus.Kind.NO_DB)
                self.assertEqual([tell(values), tell(gaps)], [("cam.a", "4", "1")] * 2)
        none = ctypes.byref(ctypes.c_void_p())
        self.assertEqual(library.kelbus_watch_open_with(none, None, 0, 4), 6)

    def test_tell_the_changes_of_their_prefixes_in_order(self) -> None:
        few = iter(kelbus.Watch("cam.a", "camera"))
        many = [kelbus.Watch("cam.a") for _ in range(1000)]
        self.bus.set_many({"cam.b": "<&>", "camera.ab": "€", "cam.a": ""}, kelbus.Kind.DIRECT)
        self.assertEqual([next(few), next(few)], [("camera.ab", "€", "3"), ("cam.a", "", "1")])
        self.assertEqual({watch.next(LIMIT) for watch in many}, {("cam.a", "", "1")})
        del many
        setter = threading.Thread(target=lambda: [self.bus.set("cam.a", i, kelbus.Kind.NO_DB)
                                                 for i in range(300)])
        setter.start()
        self.assertEqual([next(few).value for _ in range(300)], [str(i) for i in range(300)])
        setter.join()

    def test_see_the_first_change_after_they_were_opened(self) -> None:
        for i in range(20):  # an event just before must not hide the new subscription
            self.bus.set("cam.b", i, kelbus.Kind.NO_DB)
            with kelbus.Watch("cam.a") as watch:
                self.bus.set("cam.a", i, kelbus.Kind.NO_DB)
                self.assertEqual(watch.next(1), ("cam.a", str(i), str(i - 1) if i else "1"))

    def test_end_in_the_state_of_the_service_however_changes_fall(self) -> None:
        over = threading.Event()

        def change() -> None:
            for i in range(10**9):
                self.bus.set(("cam.a", "cam.b")[i % 2], i, kelbus.Kind.NO_DB)
                if over.is_set():
                    return

        setter = threading.Thread(target=change)
        setter.start()
        watches = [(kelbus.Watch("cam.", values=True), {}) for _ in range(20)]
        over.set()
        setter.join()
        self.bus["cam.b"] = "end"
        last = self.bus.list("cam.")
        for watch, state in watches:
            while len(state) < 2 or state["cam.b"] != "end":
                told = watch.next(LIMIT)
                self.assertEqual(told.name in state, told.previous is not None, "values first")
                state[told.name] = told.value
            self.assertEqual(state, last)


class Requests(OnBus):
    def test_run_side_by_side_beside_other_work(self) -> None:
        """A look, then the descriptor: as every event loop does it."""
        async def run() -> None:
            async with kelbus.AsyncClient(timeout=LIMIT) as bus:
                with self.assertRaisesRegex(kelbus.UnknownName, '"z"'):
                    await bus.set_many({"cam.b": "new", "z": ""})
                some = ("x", "cam.b", "y", "cam.a")
                answers = await asyncio.gather(*(bus.get(name) for name in ALL), bus.list("cam."),
                                               bus.group("camera.a"), bus.get_many(some))
                self.assertEqual(answers[:4], ["1", "new", "2", "3"])
                self.assertEqual(answers[4:6], [{"cam.a": "1", "cam.b": "new"},
                                                {"camera.a": "2", "camera.ab": "3"}])
                self.assertEqual(answers[6], {"x": None, "cam.b": "new", "y": None, "cam.a": "1"})
                with kelbus.Watch("cam.a") as watch:
                    await bus.set("cam.a", 5)
                    async for change in watch:
                        self.assertEqual(change, ("cam.a", "5", "1"))
                        break
                given_up = asyncio.ensure_future(bus.get("cam.a"))
                await asyncio.sleep(0)  # it is begun
                given_up.cancel()
                self.assertEqual(await bus.get("cam.b"), "new")
                self.service.freeze()
                bus.timeout = 0.05
                with self.assertRaises(kelbus.Timeout):
                    await bus.get("cam.a")
                bus.timeout = None
                waiting = asyncio.ensure_future(bus.list())
                await asyncio.sleep(0.05)
                self.service.end(signal.SIGKILL)
                for request in (waiting, bus.get("cam.a")):
                    with self.assertRaises(kelbus.NoService):
                        await request

        asyncio.run(run())


if __name__ == "__main__":
    unittest.main()
