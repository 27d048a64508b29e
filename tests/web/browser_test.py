"""The page in a real browser, with the real service and server, in a device root.

Pictures of the views are left in /tmp/pictures of the root, to be looked at. KELCONF_AXE: axe-core.
"""

import itertools
import json
import os
import pathlib
import re
import shutil
import socket
import subprocess
import time
import unittest

import kelbus
from browser import Browser, LIMIT

WEB = pathlib.Path(__file__).resolve().parents[2] / "web"
SERVED = pathlib.Path(os.environ["KELCONF_BUILD"], "web")
AXE = pathlib.Path(os.environ["KELCONF_AXE"]).read_text()
PICTURES, EXPORTED = pathlib.Path("/tmp/pictures"), pathlib.Path("/tmp/exported")
ADDRESS = ("127.0.0.1", 8080)
URL = f"http://{ADDRESS[0]}:{ADDRESS[1]}/"
PASSWORD = "correct horse battery"
TREE = """<t><cam type="trunk">
<brightness type="int" range="0,100" step="5" http_access="rw">50</brightness>
<gamma type="float" range="0.4,2.6" step="0.1" http_access="rw">1.0</gamma>
<mirror type="bool" options="0,1" http_access="rw">0</mirror>
<codec type="enum" options="h264,h265,mjpeg" http_access="rw">h265</codec>
<size type="enum" options="2560x1440,1920x1080,1280x720,640x360" http_access="rw">1280x720</size>
<shutter type="int" range="16,48" options="auto,off" http_access="rw">auto</shutter>
<port type="int" range="1,65535" http_access="rw">554</port>
<name type="string" http_access="rw">Gate</name>
<passwd type="password" http_access="rw"/>
<serial type="string" http_access="r">K-17</serial>
<level type="realtime" http_access="r"/>
<hidden type="string">hidden</hidden>
<stream type="multiple_instance" number="%d"><fps type="int" range="1,60" http_access="rw">25</fps>
<note type="string" http_access="rw">%%auto</note></stream></cam></t>"""
CONTROLS = {"brightness": "input[type=range] + input.number", "gamma": "input[type=range]",
            "mirror": "input[role=switch]", "codec": "[role=radiogroup] input[value=mjpeg]",
            "size": "select", "shutter": "input[list]", "port": ":not(input) > input.number",
            "name": "input[type=text]", "passwd": "input[type=password]", "serial": ".plain",
            "level": ".live"}

VALUES = ["", "0", "5", "050", "17", "48", "49", "-5", "1.05", "0.5", "2.6", "2.60", "1e2", " 5", "+5",
          "auto", "Auto", "1", "65535", "9" * 19, "h264", "640x360"]


def row(name: str, part: str = "") -> str:
    return f'[data-key="cam.{name}"] {part}'


class Files(unittest.TestCase):
    def test_are_small(self) -> None:
        sizes = {file.name: file.stat().st_size for file in SERVED.glob("*.gz")}
        self.assertLessEqual(sum(sizes.values()), 60_000, sizes)
        self.assertEqual(len(sizes), len(list(WEB.iterdir())))

    def test_have_a_text_for_each_key_and_no_other(self) -> None:
        texts = json.loads((WEB / "text.en.json").read_text())
        code = "".join(file.read_text() for file in WEB.glob("*.js"))
        used = set(re.findall(r'["`]([a-z]\w*(?:\.\w+)*(?:\.\$\{)?)[^"`]*["`]', code))
        starts = tuple(key[:-2] for key in used if key.endswith("${"))
        called = set(re.findall(r'\bt\(\s*"([^"]+)"', code))
        self.assertEqual(called - texts.keys(), set())
        self.assertEqual({key for key in texts if key not in used and not key.startswith(starts)},
                         {"words"} - used)


class OnDevice(unittest.TestCase):
    streams = 3

    @classmethod
    def setUpClass(cls) -> None:
        cls.browser = Browser()
        cls.addClassCleanup(cls.browser.close)

    def setUp(self) -> None:
        for stored in [*pathlib.Path("/mnt").glob("*/conf/*"), pathlib.Path("/tmp/accounts")]:
            stored.unlink(missing_ok=True)
        pathlib.Path("/etc/neutral_tree.xml").write_text(TREE % self.streams)
        subprocess.run(["kelconf-init"], check=True, stdout=subprocess.DEVNULL)
        self.programs: dict[str, subprocess.Popen] = {}
        self.addCleanup(lambda: [self.end(program) for program in list(self.programs)])
        self.start("kelconfd")
        self.start("kelconf-web")
        self.bus = kelbus.Client(timeout=LIMIT)
        self.addCleanup(self.bus.close)
        self.addCleanup(lambda: self.assertEqual(self.browser.complaints(), []))
        self.browser.request("DELETE", "/cookie")
        self.browser.look(1280, 800)
        self.browser.open(URL)

    def start(self, program: str) -> None:
        """Until it answers."""
        options = {"kelconf-web": ["--listen", "%s:%d" % ADDRESS, "--accounts", "/tmp/accounts",
                                   "--root", str(SERVED)]}
        pathlib.Path("/tmp/notify").unlink(missing_ok=True)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind("/tmp/notify")
            manager.settimeout(LIMIT)
            self.programs[program] = subprocess.Popen(
                [program, *options.get(program, [])], stdout=subprocess.DEVNULL,
                env=os.environ | {"NOTIFY_SOCKET": "/tmp/notify"})
            if program == "kelconfd":
                self.assertEqual(manager.recv(100), b"READY=1")
        while program == "kelconf-web":
            with socket.socket() as client:
                if client.connect_ex(ADDRESS) == 0:
                    break
            self.assertIsNone(self.programs[program].poll())

    def end(self, program: str) -> None:
        self.programs[program].terminate()
        self.programs.pop(program).wait()

    def has(self, *values: str) -> None:
        """Until the device has these."""
        subprocess.run(["kelctl", "wait", "--timeout", str(LIMIT), *(f"cam.{value}" for value in values)],
                       check=True)

    def shows(self, name: str, value: str) -> None:
        """Until the field has it."""
        self.browser.wait("document.querySelector(arguments[0])?.value === arguments[1]",
                          row(name, "input:not([type=range])"), value)

    def enter(self) -> None:
        """As the administrator, who is made by it."""
        self.fill("anna", PASSWORD, PASSWORD)
        self.browser.press("Create the administrator")
        self.browser.wait_text("Connected", ".state")
        self.browser.find(row("brightness"))

    def fill(self, name: str, *passwords: str) -> None:
        self.browser.type("input[autocomplete=username]", name)
        for place, password in enumerate(passwords, 2):
            self.browser.type(f".field:nth-of-type({place}) input", password)

    def log_in(self, name: str, password: str) -> None:
        self.fill(name, password)
        self.browser.press("Log in")

    def menu(self, label: str, item: str) -> None:
        self.browser.press(label)
        self.browser.press(item)

    def inspect(self, name: str) -> None:
        """Pictures of the view; nobody is shut out of it; nothing is cut off."""
        browser = self.browser
        for width, height, dark in ((1280, 800, False), (1280, 800, True), (320, 640, False)):
            browser.look(width, height, dark=dark)
            browser.wait("document.getAnimations().every((each) => each.playState !== 'running' || "
                         "each.effect.getTiming().iterations === Infinity)")
            browser.picture(PICTURES / f"{name}-{width}{'-dark' * dark}.png")
            browser.run(AXE)
            self.assertEqual(browser.run(
                "return axe.run(document, {resultTypes: ['violations']}).then((found) => found."
                "violations.map(({id, nodes}) => [id, nodes[0].html, nodes[0].failureSummary]))"), [])
            self.assertEqual(browser.run(
                "return [...document.querySelectorAll('body *')].filter((each) => "
                "each.getBoundingClientRect().right > innerWidth && !each.closest('.table-scroll'))"
                ".map((each) => each.outerHTML.slice(0, 200))"), [])
        browser.look(1280, 800)


class Page(OnDevice):
    def test_lets_in_whom_it_knows(self) -> None:
        browser = self.browser
        self.inspect("set-up")
        self.fill("anna", PASSWORD, "other")
        browser.press("Create the administrator")
        browser.wait_text("The two passwords differ.")
        self.enter()
        self.menu("Account anna", "Accounts")
        browser.press("Add account")
        browser.type("dialog input[type=text]", "vera")
        browser.type("dialog input[type=password]", PASSWORD)
        browser.press("Add")
        browser.wait_text("vera", ".accounts")
        self.inspect("accounts")
        self.menu("Account anna", "Log out")
        self.log_in("anna", "wrong")
        browser.wait_text("Name or password is wrong.")
        self.inspect("log-in")
        self.log_in("vera", PASSWORD)
        browser.wait_text("K-17", row("serial"))
        self.assertEqual(browser.run("return document.querySelectorAll('.row input, .row select, "
                                     ".row button:not([hidden]), [aria-label*=Export]').length"), 0)

    def test_has_the_right_control_for_each_and_finds_it(self) -> None:
        self.enter()
        for name, control in CONTROLS.items():
            self.browser.find(row(name, control))
        self.assertNotIn("hidden", self.browser.text(".list"))
        self.assertIn("0.4 to 2.6, in steps of 0.1", self.browser.text(row("gamma")))
        self.inspect("settings")
        for query, found in (("gate", ["name"]), ("CAM port", ["port"]), ("mjpeg", []),
                             ("stream.2 fps", ["stream.2.fps"]), ("hidden", []), ("h.265", ["codec"])):
            self.browser.type("#search", query)
            self.browser.wait("[...document.querySelectorAll('.row')].map((each) => each.dataset.key).join() "
                              "=== arguments[0]", ",".join(f"cam.{name}" for name in found))

    def test_saves_all_changes_at_once_and_undoes_each(self) -> None:
        browser = self.browser
        self.enter()
        browser.type(row("port", "input"), "8554")
        browser.click(row("mirror", "input"))
        browser.click(row("codec", "[value=mjpeg]"))
        browser.type(row("passwd", "input"), "xyzzy")
        browser.type(row("name", "input"), "Yard")
        browser.wait_text("5 unsaved changes", ".apply")
        browser.press("Undo the change of Port")
        browser.wait_text("4 unsaved changes", ".apply")
        self.has("mirror=0", "codec=h265", "name=Gate")
        browser.press("Save")
        self.has("mirror=1", "codec=mjpeg", "name=Yard", "passwd=xyzzy", "port=554")
        browser.wait("document.querySelector('.apply').hidden")
        self.assertFalse(browser.run("return [...document.querySelectorAll('*')].some((each) => "
                                     "(each.value + each.outerHTML).includes('xyzzy'))"))
        browser.press("Back to the factory value: Gate")
        browser.keys("CONTROL+s")
        self.has("name=Gate")
        browser.type(row("name", "input"), "Yard")
        browser.press("Undo all")
        self.shows("name", "Gate")

    def test_refuses_in_words_what_the_device_would_refuse(self) -> None:
        browser = self.browser
        self.enter()
        browser.type(row("port", "input"), "70000")
        browser.wait_text("Must be 1 to 65535", row("port"))
        browser.press("Show")
        self.assertEqual(browser.run("return document.activeElement.ariaInvalid"), "true")
        self.has("port=554")
        catalog, expected = kelbus.Catalog(), {}
        for case in itertools.product(CONTROLS, VALUES):
            try:
                catalog.check(f"cam.{case[0]}", case[1])
                expected[case] = True
            except kelbus.BadArgument:
                expected[case] = False
        allowed = browser.run("""const script = document.querySelector("script[type=module]").src;
            const [cases] = arguments;
            return Promise.all(["rules.js", "store.js"].map((file) => import(new URL(file, script))))
                .then(([rules, store]) => cases.map(([name, value]) =>
                    rules.brokenRule(store.parameters.get(`cam.${name}`), value) === ""));""", list(expected))
        self.assertEqual(dict(zip(expected, allowed)), expected)

    def test_shows_what_others_change_and_lets_conflicts_be_decided(self) -> None:
        browser = self.browser
        self.enter()
        self.bus["cam.level"] = "17"
        browser.wait_text("17", row("level"))
        self.bus["cam.level"] = "42"
        browser.wait_text("42", row("level"))
        self.bus["cam.gamma"] = "2.0"
        self.shows("gamma", "2.0")
        for decision, left in (("Keep mine", "Mine"), ("Take theirs", "Theirs")):
            self.bus["cam.name"] = "Gate"
            self.shows("name", "Gate")
            browser.type(row("name", "input"), "Mine")
            self.bus["cam.name"] = "Theirs"
            browser.wait_text("Somebody else has set this to: Theirs", row("name"))
            browser.wait_text("1 conflict to decide", ".apply")
            if left == "Mine":
                self.inspect("conflict")
            browser.press(decision)
            if left == "Mine":
                browser.press("Save")
            self.has(f"name={left}")

    def test_exports_imports_and_resets_after_a_look(self) -> None:
        browser = self.browser
        self.enter()
        self.bus.set_many({"cam.name": "Yard", "cam.port": "8554"})
        browser.chrome("Browser.setDownloadBehavior", behavior="allow", downloadPath=str(EXPORTED))
        self.menu("Export, import, reset", "Export…")
        browser.click("dialog input[type=checkbox]")
        browser.press("Export")
        browser.wait("!document.querySelector('dialog')")
        while not (files := list(EXPORTED.glob("*.txt"))):
            time.sleep(0.02)
        exported = files[0].read_text()
        self.assertEqual({line for line in exported.splitlines() if line[:1] != "#"},
                         {"cam.name=Yard", "cam.port=8554"})
        self.menu("Export, import, reset", "Reset…")
        browser.wait_text("2 settings would change", "dialog")
        self.inspect("reset")
        browser.click("dialog input[type=checkbox]")
        browser.press("Reset")
        self.has("name=Gate", "port=554")
        browser.wait_text("2 settings are back", "#toasts")
        bad, good = pathlib.Path("/tmp/bad.txt"), pathlib.Path("/tmp/good.txt")
        bad.write_text(exported + "cam.hidden=1\ncam.gamma=7\n")
        good.write_text(exported)
        self.menu("Export, import, reset", "Import…")
        for file, said in ((bad, "2 lines cannot be imported"), (good, "2 settings would change")):
            browser.request("POST", browser.find("#import-file") + "/value", text=str(file))
            browser.wait_text(said, "dialog")
            self.has("name=Gate")
        self.inspect("import")
        browser.press("Import")
        self.has("name=Yard", "port=8554")

    def test_goes_on_when_service_and_server_are_back(self) -> None:
        browser = self.browser
        self.enter()
        browser.type(row("name", "input"), "Yard")
        self.end("kelconfd")
        browser.wait_text("The configuration service does not answer", ".banner")
        self.inspect("away")
        self.start("kelconfd")
        browser.wait_text("Connected", ".state")
        self.end("kelconf-web")
        browser.wait_text("The camera does not answer", ".banner")
        self.bus["cam.port"] = "8554"
        self.start("kelconf-web")
        browser.wait("document.body.innerText.match('Log in|Connected')")
        if "Log in" in browser.text():
            self.log_in("anna", PASSWORD)
        self.shows("port", "8554")
        browser.press("Save")
        self.has("name=Yard")

    def test_needs_no_mouse(self) -> None:
        browser = self.browser

        def tab_to(selector: str) -> None:
            for _ in range(99):
                if browser.run("return document.activeElement.matches(arguments[0])", selector):
                    return
                browser.keys("TAB")
            self.fail(f"no way to {selector}")

        browser.find("input[autocomplete=username]")
        browser.keys("anna", "TAB", PASSWORD, "TAB", PASSWORD, "ENTER")
        browser.find(row("brightness"))
        tab_to("[role=treeitem]")
        browser.keys("DOWN", "RIGHT", "DOWN", "RIGHT", "DOWN", "DOWN", "ENTER")
        browser.wait_text("Cam › Stream 2", "main h1")
        tab_to(row("stream.2.fps", ".number"))
        browser.keys("UP", "UP", "/", "CONTROL+s")
        browser.wait_text("Must be a number", row("stream.2.fps"))
        tab_to("[aria-label='Undo the change of FPS']")
        browser.keys("ENTER", "/", "mirror")
        tab_to(row("mirror", "input"))
        browser.keys(" ", "CONTROL+s")
        self.has("mirror=1", "stream.2.fps=25")


class LongList(OnDevice):
    streams = 2500

    def test_draws_only_what_is_in_view(self) -> None:
        browser = self.browser
        self.enter()
        browser.open(URL)
        browser.find(row("brightness"))
        print("5,000 parameters, first view after", browser.run("return performance.now()"), "ms")
        browser.wait_text("5,012 settings", ".count")
        browser.run("document.querySelector('.list').scrollTop = 1e9")
        browser.find(row("stream.2500.note"))
        browser.type("#search", "2499 fps")
        browser.find(row("stream.2499.fps", "mark"))
        browser.type("#search", "stream")
        browser.wait_text("5,001 settings", ".count")
        self.assertLess(browser.run("return document.querySelectorAll('.row').length"), 60)


if __name__ == "__main__":
    for left in (PICTURES, EXPORTED):
        shutil.rmtree(left, ignore_errors=True)
    unittest.main(verbosity=2)
