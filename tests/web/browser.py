"""A browser for tests: chromium, headless, by the WebDriver protocol of chromedriver."""

import base64
import json
import os
import pathlib
import re
import subprocess
import tempfile
import time
import urllib.error
import urllib.request

LIMIT = 60  # s, the guard against a hang
KEYS = {"TAB": "\ue004", "ENTER": "\ue007", "CONTROL": "\ue009", "UP": "\ue013",
        "RIGHT": "\ue014", "DOWN": "\ue015"}
CHROMIUM = "/usr/lib/chromium/chromium"  # the one in PATH is a script that wants its /etc
# --no-sandbox: within a device root there are no further namespaces.
ARGUMENTS = ["--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu", "--lang=en"]
FONTS = """<fontconfig><dir>/usr/share/fonts</dir><cachedir>%s</cachedir><match><edit name="family"
mode="append_last"><string>DejaVu Sans</string></edit></match></fontconfig>"""


class Browser:
    """One window. Elements are named by CSS selectors and waited for."""

    def __init__(self) -> None:
        self.profile = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        fonts = pathlib.Path(self.profile.name, "fonts.conf")
        fonts.write_text(FONTS % self.profile.name)
        own = {"HOME": self.profile.name, "FONTCONFIG_FILE": str(fonts)}  # instead of what lies in /etc
        self.driver = subprocess.Popen(["chromedriver", "--port=0"], text=True,
                                       stdout=subprocess.PIPE, env=os.environ | own)
        started = (re.search(r"started successfully on port (\d+)", line) for line in self.driver.stdout)
        self.root = f"http://127.0.0.1:{next(filter(None, started))[1]}/session"
        options = {"binary": CHROMIUM, "args": [*ARGUMENTS, f"--user-data-dir={self.profile.name}"]}
        always = {"goog:chromeOptions": options, "goog:loggingPrefs": {"browser": "ALL"}}
        session = self.request("POST", "", capabilities={"alwaysMatch": always})
        self.root += "/" + session["sessionId"]

    def close(self) -> None:
        self.request("DELETE", "")
        self.driver.terminate()
        self.driver.wait()
        self.driver.stdout.close()
        self.profile.cleanup()

    def request(self, method: str, path: str, **body: object) -> object:
        data = json.dumps(body).encode() if method == "POST" else None
        request = urllib.request.Request(self.root + path, data, method=method)
        try:
            with urllib.request.urlopen(request, timeout=LIMIT) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            raise AssertionError(json.load(error)["value"]["message"]) from None

    def run(self, script: str, *arguments: object) -> object:
        """The result of a script, also of a promise."""
        return self.request("POST", "/execute/sync", script=script, args=arguments)

    def chrome(self, command: str, **parameters: object) -> object:
        return self.request("POST", "/goog/cdp/execute", cmd=command, params=parameters)

    def open(self, url: str) -> None:
        self.request("POST", "/url", url=url)

    def wait(self, script: str, *arguments: object) -> object:
        """Until the expression is true in the page; its value."""
        end = time.monotonic() + LIMIT
        while not (value := self.run(f"return ({script})", *arguments)):
            if time.monotonic() > end:
                raise AssertionError(f"never true: {script} {arguments}\n{self.text()}")
            time.sleep(0.02)
        return value

    def wait_text(self, text: str, selector: str = "body") -> None:
        self.wait("document.querySelector(arguments[1])?.innerText.includes(arguments[0])", text, selector)

    def text(self, selector: str = "body") -> str:
        return self.run("return document.querySelector(arguments[0])?.innerText ?? ''", selector)

    def find(self, selector: str, label: str = "") -> str:
        """What is in view under the selector, and has the label when one is given."""
        element = self.wait("[...document.querySelectorAll(arguments[0])].find((each) => !each.disabled && "
                            "each.getClientRects().length && (!arguments[1] || "
                            "(each.ariaLabel ?? each.textContent).trim() === arguments[1]))", selector, label)
        return f"/element/{next(iter(element.values()))}"

    def click(self, selector: str) -> None:
        self.request("POST", self.find(selector) + "/click")

    def press(self, label: str) -> None:
        self.request("POST", self.find("button", label) + "/click")

    def type(self, selector: str, text: str) -> None:
        """In place of what stands in the field."""
        self.request("POST", self.find(selector) + "/clear")
        self.request("POST", self.find(selector) + "/value", text=text)

    def keys(self, *keys: str) -> None:
        """To whatever has the focus: names of KEYS, "CONTROL+letter", or text."""
        actions = []
        for key in keys:
            held, letter = key.split("+") if "+" in key else ("", key)
            letters = [KEYS[letter]] if letter in KEYS else letter
            actions += [{"type": "keyDown", "value": KEYS[held]}] if held else []
            actions += [{"type": kind, "value": each} for each in letters for kind in ("keyDown", "keyUp")]
            actions += [{"type": "keyUp", "value": KEYS[held]}] if held else []
        self.request("POST", "/actions", actions=[{"type": "key", "id": "keys", "actions": actions}])

    def look(self, width: int, height: int, *, dark: bool = False) -> None:
        self.chrome("Emulation.setDeviceMetricsOverride", width=width, height=height,
                    deviceScaleFactor=1, mobile=False)
        scheme = {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}
        self.chrome("Emulation.setEmulatedMedia", features=[scheme])

    def picture(self, path: pathlib.Path) -> None:
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(base64.b64decode(self.request("GET", "/screenshot")))

    def complaints(self) -> list[str]:
        """Errors in the console since the last call. An answer of the API that is one is none."""
        return [entry["message"] for entry in self.request("POST", "/se/log", type="browser")
                if entry["level"] == "SEVERE"
                and not (entry["source"] == "network" and "/api/v1/" in entry["message"])]
