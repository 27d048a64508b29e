"""The module kelbus with the real service, in a device root: kelconfd and libkelbus of KELCONF_BUILD."""

import asyncio
import os
import pathlib
import signal
import subprocess
import threading
import time
import unittest

import kelbus

TREE = """<t><cam type="trunk"><a type="string">1</a><b type="string"/></cam>
<camera type="trunk"><a type="string">2</a><b type="string">3</b></camera></t>"""
ALL = {"cam.a": "1", "cam.b": "", "camera.a": "2", "camera.b": "3"}


class Service:
    def __init__(self) -> None:
        self.process = subprocess.Popen(["kelconfd"], stdout=subprocess.DEVNULL)
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline:
            try:
                with kelbus.Client() as bus:
                    bus.list()
                return
            except kelbus.NoService:
                time.sleep(0.02)
        raise AssertionError("kelconfd does not answer")

    def end(self, number: int = signal.SIGTERM) -> None:
        self.process.send_signal(number)
        self.process.wait()


class Bus(unittest.TestCase):
    def setUp(self) -> None:
        for stored in pathlib.Path("/mnt").glob("*/conf/*"):
            stored.unlink()
        pathlib.Path("/etc/neutral_tree.xml").write_text(TREE)
        self.service = Service()
        self.addCleanup(lambda: self.service.process.poll() is not None or self.service.end())

    def test_reads_and_sets(self) -> None:
        with kelbus.Client(timeout=60) as bus:
            self.assertEqual(bus.list(), ALL)
            self.assertEqual(bus.list("camera.b"), {"camera.b": "3"})
            self.assertEqual(bus.group("camera.a rest"), {"camera.a": "2"})
            self.assertEqual(bus.get_many(["x", "cam.b"]), {"x": None, "cam.b": ""})
            self.assertEqual((bus.get("x", None), "x" in bus, "cam.b" in bus), (None, False, True))
            values = [("ä\n<&>€", "ä\n<&>€"), (True, "1"), (False, "0"), (-7, "-7"), (2.5, "2.5"),
                      (3.0, "3"), (1e22, "1" + "0" * 22), (-1e-7, "-0.0000001")]
            for value, stored in values:
                bus["cam.a"] = value
                self.assertEqual(bus["cam.a"], stored)
            self.assertEqual(bus.get_float("cam.a"), -1e-7)
            bus.set_many({"cam.a": 1, "cam.b": "x"}, kelbus.Kind.DIRECT)
            self.assertEqual((bus.get_int("cam.a"), bus.get_bool("cam.a")), (1, True))
            broken = [("x", lambda: bus["x"], KeyError, 'no parameter has the name "x"'),
                      ("set x", lambda: bus.set_many({"cam.a": "2", "x": ""}), KeyError, '"x"'),
                      ("no int", lambda: bus.get_int("cam.b"), ValueError, "no whole number"),
                      ("no float", lambda: bus.get_float("cam.b"), ValueError, "no number"),
                      ("no bool", lambda: bus.get_bool("cam.b"), ValueError, "neither 0 nor 1"),
                      ("zero byte", lambda: bus["cam.a\0"], ValueError, "zero byte"),
                      ("surrogate", lambda: bus["\ud800"], ValueError, "UTF-8"),
                      ("infinite", lambda: bus.set("cam.a", float("inf")), ValueError, "finite"),
                      ("control", lambda: bus.set("cam.a", "\x01"), ValueError, "XML")]
            for what, call, kind, text in broken:
                with self.subTest(what), self.assertRaises(kind) as raised:
                    call()
                self.assertIsInstance(raised.exception, kelbus.KelbusError)
                self.assertIn(text, str(raised.exception))
        with self.assertRaises(kelbus.BadArgument):
            bus.get("cam.a")

    def test_says_when_nobody_answers_and_goes_on(self) -> None:
        bus, hasty = kelbus.Client(timeout=60), kelbus.Client(timeout=0.05)
        os.kill(self.service.process.pid, signal.SIGSTOP)
        self.assertRaises(TimeoutError, hasty.get, "cam.a")
        timer = threading.Timer(0.3, os.kill, (os.getpid(), signal.SIGINT))
        timer.start()
        self.assertRaises(KeyboardInterrupt, bus.get, "cam.a")
        self.service.end(signal.SIGKILL)
        self.assertRaises(ConnectionError, bus.get, "cam.a")
        self.service = Service()
        self.assertEqual(bus["cam.a"] + hasty["cam.a"], "11")

    def test_watches(self) -> None:
        bus = kelbus.Client(timeout=60)
        with kelbus.Watch("cam.", values=True) as watch, kelbus.Watch() as plain:
            bus["cam.b"] = "new"
            seen = iter(watch)
            self.assertEqual(next(seen), ("cam.a", "1", None))
            self.assertEqual(next(seen).name, "cam.b")  # before that change or after it
            self.assertEqual(next(seen), ("cam.b", "new", ""))
            self.assertEqual(plain.next(60), ("cam.b", "new", ""))
            self.assertIsNone(plain.next(0.01))
            self.service.end()
            self.service = Service()
            self.assertTrue(next(seen).is_gap)
            self.assertEqual([next(seen), next(seen)],
                             [("cam.a", "1", None), ("cam.b", "new", None)])

    def test_asyncio(self) -> None:
        async def run() -> None:
            async with kelbus.AsyncClient(timeout=60) as bus:
                answers = await asyncio.gather(*(bus.get(name) for name in ALL), bus.list("cam."))
                self.assertEqual(answers[:4], list(ALL.values()))
                self.assertEqual(answers[4], {"cam.a": "1", "cam.b": ""})
                with self.assertRaises(kelbus.UnknownName):
                    await bus.set("x", "")
                with kelbus.Watch("cam.a") as watch:
                    await bus.set("cam.a", 5)
                    async for change in watch:
                        self.assertEqual(change, ("cam.a", "5", "1"))
                        break
                os.kill(self.service.process.pid, signal.SIGSTOP)
                bus.timeout = 0.05
                with self.assertRaises(kelbus.Timeout):
                    await bus.get("cam.a")
                bus.timeout = None
                task = asyncio.ensure_future(bus.get("cam.a"))
                await asyncio.sleep(0.01)
                task.cancel()
                with self.assertRaises(asyncio.CancelledError):
                    await task
                task = asyncio.ensure_future(bus.get("cam.a"))
                await asyncio.sleep(0.01)
                self.service.end(signal.SIGKILL)
                with self.assertRaises(kelbus.NoService):
                    await task

        asyncio.run(run())


if __name__ == "__main__":
    unittest.main()
