"""kelconf-web with the real service, in a device root: access, calls, hostile clients, restarts."""

import base64
import http.client
import json
import os
import pathlib
import re
import resource
import signal
import socket
import subprocess
import time
import unittest

TREE = """<t><cam type="trunk">
<level type="int" range="0-100" step="5" http_access="rw">5</level>
<mode type="enum" options="day|night" http_access="rw">day</mode>
<model type="string" http_access="r">K1</model>
<hidden type="string">h1</hidden>
<odd type="string" http_access="w">o1</odd>
<password type="password" http_access="rw">factory-secret</password>
<pin type="password" http_access="r">4711</pin>
<heat type="realtime" http_access="rw">20</heat>
</cam><net type="trunk"><name type="string" http_access="rw">n</name></net></t>"""
READABLE = {"cam.heat", "cam.level", "cam.mode", "cam.model", "cam.password", "cam.pin", "net.name"}
SETTABLE = {"cam.level": "10", "cam.mode": "night", "cam.password": "fresh-secret", "cam.heat": "21",
            "net.name": "m"}
SECRETS = ("factory-secret", "fresh-secret", "4711")
NAMES = READABLE | {"cam.hidden", "cam.odd", "cam.nothing"}
ROLES = ["none", "viewer", "operator", "administrator"]
PROJECT = pathlib.Path(__file__).resolve().parents[2]
API = json.loads((PROJECT / "docs/openapi.json").read_text())
ACCOUNTS = pathlib.Path("/mnt/nand/web/accounts")
PASSWORD = "right-password"
LIMIT = 60  # s: the guard against a hang
PORT = 8080


def await_true(what, text: str):
    """What comes true within the limit; its value."""
    end = time.monotonic() + LIMIT
    while not (value := what()):
        if time.monotonic() > end:
            raise AssertionError(f"not within {LIMIT} s: {text}")
        time.sleep(0.02)
    return value


def start(*command: str) -> subprocess.Popen:
    return subprocess.Popen(command, stdout=subprocess.DEVNULL, stdin=subprocess.DEVNULL)


def end(process: subprocess.Popen, number: int = signal.SIGTERM) -> int:
    process.send_signal(number)
    return process.wait(LIMIT)


def kelctl(*words: str) -> str:
    return subprocess.run(["kelctl", *words], check=True, capture_output=True, text=True).stdout


def account(*words: str, password: str = PASSWORD) -> subprocess.CompletedProcess:
    return subprocess.run(["kelconf-web", "account", *words], input=password + "\n", text=True,
                          capture_output=True)


def log() -> str:
    return pathlib.Path("/var/log/syslog").read_text(errors="replace")


def connect(source: str = "127.0.0.1") -> socket.socket:
    return socket.create_connection(("127.0.0.1", PORT), LIMIT, (source, 0))


def basic(role: str) -> str:
    return "Basic " + base64.b64encode(f"{role}:{PASSWORD}".encode()).decode()


class Answer:
    def __init__(self, response: http.client.HTTPResponse) -> None:
        self.status, self.headers, self.text = response.status, response.headers, response.read().decode()

    @property
    def json(self):
        return json.loads(self.text)

    @property
    def code(self) -> str:
        return self.json["error"]["code"]


def call(method: str, path: str, body=None, role: str = "none", source: str = "127.0.0.1", **headers) -> Answer:
    """One call; with a role by the account of that name."""
    connection = http.client.HTTPConnection("127.0.0.1", PORT, LIMIT, (source, 0))
    fields = {name.replace("_", "-"): value for name, value in headers.items()}
    if role != "none":
        fields["Authorization"] = basic(role)
    body = json.dumps(body) if isinstance(body, (dict, list)) else body
    body = body.encode() if isinstance(body, str) else body
    try:
        connection.request(method, "/api/v1/" + path, body, fields)
        return Answer(connection.getresponse())
    finally:
        connection.close()


class Events:
    """A subscriber."""

    def __init__(self, query: str = "", role: str = "viewer", source: str = "127.0.0.1") -> None:
        self.connection = http.client.HTTPConnection("127.0.0.1", PORT, LIMIT, (source, 0))
        self.connection.request("GET", "/api/v1/events" + query, headers={"Authorization": basic(role)})
        self.response = self.connection.getresponse()
        self.next_line(":")  # the greeting

    def next_line(self, begin: str) -> str:
        end = time.monotonic() + LIMIT
        while (line := self.response.readline().decode()) and time.monotonic() < end:
            if line.startswith(begin):
                return line
        raise EOFError

    def next(self, kind: str = "change"):
        self.next_line(f"event: {kind}")
        return json.loads(self.next_line("data: ")[6:])

    def close(self) -> None:
        self.response.close()
        self.connection.close()


class OnDevice(unittest.TestCase):
    with_accounts = True
    options: tuple = ()

    def setUp(self) -> None:
        for kept in [*pathlib.Path("/mnt").glob("*/conf/*"), *ACCOUNTS.parent.glob("*")]:
            kept.unlink()
        pathlib.Path("/etc/neutral_tree.xml").write_text(TREE)
        subprocess.run(["kelconf-init"], check=True)
        if self.with_accounts:
            for role in ROLES[1:]:
                self.assertEqual(account("add", role, role).returncode, 0)
        self.service = start("kelconfd")
        self.addCleanup(lambda: end(self.service))
        self.start_web()
        self.addCleanup(lambda: self.assertEqual(end(self.web), 0))
        if self.with_accounts:
            self.await_state("up")

    def start_web(self) -> None:
        self.web = start("kelconf-web", "--root", os.environ["KELCONF_BUILD"] + "/web", *self.options)
        await_true(self.answers, "kelconf-web answers")

    def answers(self) -> bool:
        try:
            return call("GET", "setup").status == 200
        except OSError:
            return False

    def await_state(self, state: str) -> None:
        await_true(lambda: call("GET", "status", role="viewer").json["service"] == state, state)

    def memory(self) -> int:  # KiB
        status = pathlib.Path(f"/proc/{self.web.pid}/status").read_text()
        return int(re.search(r"VmRSS:\s*(\d+)", status)[1])

    def assert_grew_less(self, before: int, limit: int) -> None:
        if "KELCONF_SANITIZE" not in os.environ:  # a sanitizer keeps what is freed
            self.assertLess(self.memory() - before, limit)

    def parameter(self, name: str) -> dict:
        return call("GET", f"parameters/{name}", role="administrator").json


class Access(OnDevice):
    def test_each_call_needs_its_role(self) -> None:
        known = {(path, method) for path, methods in API["paths"].items() for method in methods}
        for path in API["paths"]:
            target = path[1:].replace("{name}", "nobody")
            for method in ("get", "post", "put", "patch", "delete"):
                if (path, method) == ("/events", "get"):
                    continue
                if (path, method) not in known:
                    self.assertEqual(call(method.upper(), target, role="administrator").status, 405, (path, method))
                    continue
                least = API["paths"][path][method]["x-least-role"]
                for role in ROLES:
                    body = None if method in ("get", "delete") else "{}" if path != "/import" else ""
                    answer = call(method.upper(), target, body, role)
                    allowed = ROLES.index(role) >= ROLES.index(least)
                    denied = 401 if role == "none" else 403
                    with self.subTest(path=path, method=method, role=role, status=answer.status):
                        self.assertEqual(answer.status != denied, allowed)

    def test_each_role_sees_and_sets_what_the_tree_says(self) -> None:
        for role in ROLES:
            for name in sorted(NAMES):
                with self.subTest(role=role, name=name):
                    self.check_reading(role, name)
                    self.check_setting(role, name)
                    self.check_factory_calls(role, name)

    def check_reading(self, role: str, name: str) -> None:
        one = call("GET", f"parameters/{name}", role=role)
        many = call("GET", "parameters", role=role)
        self.assertEqual(one.status, 401 if role == "none" else 200 if name in READABLE else 404)
        if role != "none":
            self.assertEqual({item["name"] for item in many.json["parameters"]}, READABLE)
        for secret in SECRETS:
            self.assertNotIn(secret, one.text + many.text)

    def check_setting(self, role: str, name: str) -> None:
        before = kelctl("get", "-q", "--show-secrets", name) if name != "cam.nothing" else ""
        value = SETTABLE.get(name, "x")
        answer = call("PATCH", "parameters", {"values": {name: value}}, role)
        denied = {"none": 401, "viewer": 403}.get(role)
        self.assertEqual(answer.status, denied or (200 if name in SETTABLE else 422))
        if name != "cam.nothing":
            is_set = answer.status == 200
            self.assertEqual(kelctl("get", "-q", "--show-secrets", name), f"{name}={value}\n" if is_set else before)

    def check_factory_calls(self, role: str, name: str) -> None:
        answer = call("POST", "reset", {"names": [name], "dry_run": True}, role)
        denied = {"none": 401, "viewer": 403, "operator": 403}.get(role)
        resets = name in SETTABLE and name != "cam.heat"
        self.assertEqual(answer.status, denied or (200 if resets else 422))
        exported = call("GET", "export", role=role)
        imported = call("POST", "import?dry_run=1", f"{name}=x1", role)
        self.assertEqual((exported.status, imported.status), (denied or 200,) * 2)
        if not denied:
            self.assertEqual(f"\n{name}=" in exported.text,
                             name in READABLE - {"cam.password", "cam.pin", "cam.heat"})
            free = name in ("cam.password", "cam.heat", "net.name")  # no rule forbids "x1"
            self.assertEqual([item["name"] for item in imported.json["refused"]], [] if free else [name])
        for secret in SECRETS:
            self.assertNotIn(secret, answer.text + exported.text + imported.text)

    def test_events_are_of_what_the_web_may_read(self) -> None:
        events = Events("?prefix=cam.")
        self.addCleanup(events.close)
        kelctl("set", "net.name=other", "cam.hidden=h2", "cam.odd=o2", "cam.password=fresh-secret", "cam.level=15")
        seen = [events.next(), events.next()]
        self.assertEqual(sorted(seen, key=lambda change: change["name"]),
                         [{"name": "cam.level", "value": "15", "previous": "5"},
                          {"name": "cam.password", "value": None, "previous": None, "set": True}])
        self.assertEqual(call("GET", "events").status, 401)

    def test_a_change_is_logged_without_secrets(self) -> None:
        call("PATCH", "parameters", {"values": {"cam.password": "fresh-secret", "net.name": "a\nb"}}, "operator")
        await_true(lambda: "operator from 127.0.0.1: net.name = a\\" in log(), "the record of the change")
        self.assertIn("operator from 127.0.0.1: cam.password = ********", log())
        self.assertFalse([line for line in log().splitlines() if "kelconf-web" in line and "fresh-secret" in line])


class Calls(OnDevice):
    def test_answers_are_as_described(self) -> None:
        cases = [("/parameters", "get", "parameters", None), ("/parameters/{name}", "get", "parameters/cam.level", None),
                 ("/parameters", "patch", "parameters", {"store": "soon", "values": {"cam.level": "20"}}),
                 ("/reset", "post", "reset", {"prefixes": [""]}), ("/status", "get", "status", None),
                 ("/import", "post", "import", "net.name=z"), ("/accounts", "get", "accounts", None),
                 ("/setup", "get", "setup", None), ("/session", "get", "session", None),
                 ("/accounts", "post", "accounts", {"name": "eve", "role": "viewer", "password": PASSWORD}),
                 ("/accounts/{name}", "patch", "accounts/eve", {"role": "operator"}),
                 ("/accounts/{name}", "delete", "accounts/eve", None)]
        for path, method, target, body in cases:
            with self.subTest(path=path, method=method):
                answer = call(method.upper(), target, body, "administrator")
                status, described = next(iter(API["paths"][path][method]["responses"].items()))
                self.assertEqual(str(answer.status), status, answer.text)
                if "content" in described:
                    self.check(answer.json, described["content"]["application/json"]["schema"])

    def check(self, value, schema: dict) -> None:
        """The value is of the schema, in so far as ours use it, and has nothing beside it."""
        if "$ref" in schema:
            schema = API["components"]["schemas"][schema["$ref"].rsplit("/", 1)[1]]
        if "enum" in schema:
            self.assertIn(value, schema["enum"])
        elif schema["type"] == "object":
            self.assertLessEqual(set(schema["required"]), set(value))
            for key, inner in value.items():
                self.check(inner, schema["properties"][key])
        elif schema["type"] == "array":
            for inner in value:
                self.check(inner, schema["items"])
        else:
            types = {"string": str, "boolean": bool, "integer": int, "null": type(None)}
            names = schema["type"] if isinstance(schema["type"], list) else [schema["type"]]
            self.assertIsInstance(value, tuple(types[name] for name in names))

    def test_a_parameter_comes_with_its_rule(self) -> None:
        self.assertEqual(self.parameter("cam.level"), {
            "name": "cam.level", "default": "5", "type": "int", "min": "0", "max": "100", "step": "5", "options": [],
            "rule": "0 to 100, in steps of 5", "access": "rw", "secret": False, "state": False, "value": "5",
            "set": True, "changed": False})
        self.assertEqual(self.parameter("cam.mode")["options"], ["day", "night"])

    def test_all_values_are_set_or_none(self) -> None:
        answer = call("PATCH", "parameters", {"values": {"net.name": "new", "cam.level": "101", "cam.model": "x"}}, "operator")
        details = {detail["name"]: detail for detail in answer.json["error"]["details"]}
        self.assertEqual((answer.status, answer.code), (422, "refused"))
        self.assertEqual(details["cam.level"]["message"], "must be 0 to 100")
        self.assertEqual(details["cam.level"]["rule"], {"min": "0", "max": "100", "step": "5", "options": []})
        self.assertEqual(set(details), {"cam.level", "cam.model"})
        self.assertEqual(kelctl("get", "net.name"), "net.name=n\n")
        for body in ("", "[]", "{", '{"values":{"a":1}}', '{"values":{"a":{"b":"c"}}}', '{"values":[]}', b'{"values":{"\xff":""}}',
                     '{"store":"later","values":{}}', '{"values":{"net.name":"1","net.name":"2"}}', "[" * 100000):
            self.assertEqual(call("PATCH", "parameters", body, "operator").status, 400, body[:40])

    def test_an_unchanged_list_costs_nothing(self) -> None:
        first = call("GET", "parameters", role="viewer")
        again = call("GET", "parameters", role="viewer", If_None_Match=first.headers["ETag"])
        self.assertEqual((again.status, again.text), (304, ""))
        call("PATCH", "parameters", {"values": {"net.name": "new"}}, "operator")
        self.assertEqual(self.parameter("net.name")["value"], "new")  # at once
        self.assertEqual(call("GET", "parameters", role="viewer", If_None_Match=first.headers["ETag"]).status, 200)
        listed = call("GET", "parameters?prefix=net.&prefix=cam.m", role="viewer").json["parameters"]
        self.assertEqual([item["name"] for item in listed], ["cam.mode", "cam.model", "net.name"])

    def test_export_reset_and_import_go_round(self) -> None:
        kelctl("set", "cam.level=50", "net.name=\\ x = ü", "cam.model=K2")
        await_true(lambda: self.parameter("cam.model")["value"] == "K2", "the change is seen")
        exported = call("GET", "export?changed=1", role="administrator").text
        reset = call("POST", "reset", {"prefixes": [""]}, "administrator").json["changes"]
        self.assertEqual([change["name"] for change in reset], ["cam.level", "net.name"])  # the model is not ours to set
        self.assertEqual(kelctl("get", "cam.level", "net.name"), "cam.level=5\nnet.name=n\n")
        self.assertEqual(call("POST", "import", exported, "administrator").status, 200)
        self.assertEqual(kelctl("get", "cam.level", "net.name"), "cam.level=50\nnet.name=\\ x = ü\n")
        broken = call("POST", "import", "net.name=ok\ncam.level=7\n", "administrator")
        self.assertEqual((broken.status, kelctl("get", "net.name")), (422, "net.name=\\ x = ü\n"))

    def test_the_service_may_go_and_come(self) -> None:
        events = Events()
        self.addCleanup(events.close)
        end(self.service, signal.SIGKILL)
        self.assertEqual(events.next("service"), {"state": "down"})
        self.assertEqual(call("GET", "parameters", role="viewer").code, "unavailable")
        self.assertEqual(call("PATCH", "parameters", {"values": {"net.name": "q"}}, "operator").status, 503)
        self.service = start("kelconfd")
        self.assertEqual(events.next("service"), {"state": "up"})
        self.assertEqual(events.next("resync"), {})
        kelctl("set", "net.name=after")
        self.assertEqual(events.next()["value"], "after")

    def test_changes_made_fast_end_as_the_service_has_them(self) -> None:
        for value in range(50):
            kelctl("set", "-q", f"net.name={value}")
        await_true(lambda: self.parameter("net.name")["value"] == "49", "the last value")

    def test_the_page_is_served(self) -> None:
        def get(path: str, **headers):
            connection = http.client.HTTPConnection("127.0.0.1", PORT, LIMIT)
            connection.request("GET", path, headers={name.replace("_", "-"): value for name, value in headers.items()})
            response = connection.getresponse()
            self.addCleanup(connection.close)
            return response, response.read()
        response, index = get("/", Accept_Encoding="gzip")
        self.assertEqual(response.headers["Cache-Control"], "no-cache")
        self.assertIn("default-src 'none'; script-src 'self'", response.headers["Content-Security-Policy"])
        script = re.search(rb'src="(/[0-9a-f]+/app\.js)"', index)[1].decode()
        response, packed = get(script, Accept_Encoding="gzip")
        self.assertEqual((response.headers["Content-Encoding"], packed[:2]), ("gzip", b"\x1f\x8b"))
        self.assertIn("immutable", response.headers["Cache-Control"])
        self.assertEqual(get("/app.js")[1], (PROJECT / "web/app.js").read_bytes())
        for path in ("/../accounts", "/..%2faccounts", "/%2e%2e/etc/passwd", "/" + "a" * 3000, "/.", "//app.js", "/%ff%00app.js"):
            self.assertEqual(get(path)[0].status, 404, path)


class LogIn(OnDevice):
    def begin(self, name: str = "administrator", password: str = PASSWORD, **headers) -> Answer:
        return call("POST", "session", {"name": name, "password": password}, **headers)

    def test_a_session_lives_by_its_cookie_and_token(self) -> None:
        begun = self.begin()
        cookie = begun.headers["Set-Cookie"]
        for part in ("HttpOnly", "SameSite=Strict", "Path=/"):
            self.assertIn(part, cookie)
        session = {"Cookie": cookie.split(";")[0]}
        self.assertEqual(call("GET", "session", **session).json["account"], {"name": "administrator", "role": "administrator"})
        token = {"X-Kelconf-Csrf": begun.json["csrf"]}
        change = ("PATCH", "parameters", {"values": {"net.name": "by cookie"}})
        self.assertEqual(call(*change, **session).code, "cross_site")
        self.assertEqual(call(*change, **session, **{"X-Kelconf-Csrf": "0" * 64}).code, "cross_site")
        self.assertEqual(call(*change, **session, **token).status, 200)
        self.assertEqual(call("DELETE", "session", **session, **token).status, 204)
        self.assertEqual(call("GET", "session", **session).status, 401)

    def test_pages_of_other_sites_are_refused(self) -> None:
        host = f"127.0.0.1:{PORT}"
        for headers, status in (({"Origin": f"http://{host}"}, 200), ({"Origin": "http://evil"}, 403), ({"Origin": "null"}, 403),
                                ({"Origin": f"https://{host}"}, 403), ({"Sec-Fetch-Site": "cross-site"}, 403),
                                ({"Sec-Fetch-Site": "same-site"}, 403), ({"Sec-Fetch-Site": "same-origin"}, 200)):
            self.assertEqual(self.begin(**headers).status, status, headers)
            self.assertEqual(call("GET", "status", role="viewer", **headers).status, status, headers)

    def test_another_password_ends_the_other_sessions(self) -> None:
        sessions = [self.begin("operator") for _ in range(2)]
        cookies = [{"Cookie": begun.headers["Set-Cookie"].split(";")[0]} for begun in sessions]
        own = {**cookies[0], "X-Kelconf-Csrf": sessions[0].json["csrf"]}
        events = Events(role="operator")
        self.addCleanup(events.close)
        self.assertEqual(call("PUT", "session/password", {"old": "wrong", "new": "new-password"}, **own).status, 403)
        self.assertEqual(call("PUT", "session/password", {"old": PASSWORD, "new": "new-password"}, **own).status, 204)
        self.assertEqual([call("GET", "session", **cookie).status for cookie in cookies], [200, 401])
        self.assertEqual(call("GET", "status", role="operator").status, 401)  # Basic with the old one
        account("remove", "operator")
        self.assertEqual(call("GET", "session", **cookies[0]).status, 401)
        kelctl("set", "net.name=secret plans")
        with self.assertRaises(EOFError):  # the stream has ended instead
            events.next()

    def test_failures_slow_down_by_address_and_account(self) -> None:
        wrong = [self.begin(password="wrong-password") for _ in range(7)]
        self.assertEqual([answer.status for answer in wrong][:5], [401] * 5)
        self.assertEqual(wrong[-1].code, "slow_down")
        self.assertGreaterEqual(int(wrong[-1].headers["Retry-After"]), 1)
        self.assertEqual(self.begin().status, 429)
        self.assertEqual(self.begin("viewer", source="127.0.0.2").status, 200)  # others are not held up
        for number in range(6):
            self.begin(password="wrong-password", source=f"127.0.1.{number}")
        self.assertEqual(self.begin(source="127.0.0.3").code, "slow_down")

    def test_accounts_are_kept(self) -> None:
        def as_admin(*words, **more):
            return call(*words, role="administrator", **more)
        for body in ({"name": "a:b", "role": "viewer", "password": PASSWORD}, {"name": "eve", "role": "viewer", "password": "short"},
                     {"name": "eve", "role": "god", "password": PASSWORD}, {"name": "viewer", "role": "viewer", "password": PASSWORD}):
            self.assertEqual(as_admin("POST", "accounts", body).status, 422, body)
        self.assertEqual(as_admin("DELETE", "accounts/administrator").status, 422)  # the last one
        self.assertEqual(as_admin("PATCH", "accounts/administrator", {"role": "viewer"}).status, 422)
        self.assertEqual(as_admin("PATCH", "accounts/viewer", {"role": "operator"}).status, 204)
        self.assertEqual(call("PATCH", "parameters", {"values": {"net.name": "v"}}, "viewer").status, 200)
        self.assertEqual(ACCOUNTS.stat().st_mode & 0o777, 0o600)
        self.assertTrue(all(":$y$" in line for line in ACCOUNTS.read_text().splitlines()[1:]))
        self.assertEqual(account("list").stdout.split()[::2], ROLES[1:])
        ACCOUNTS.write_text(ACCOUNTS.read_text() + "not an account\n")
        self.assertEqual(as_admin("GET", "accounts").status, 401)
        self.assertFalse(call("GET", "setup").json["needed"])  # damage is no reason to let anybody in
        self.assertEqual(call("POST", "setup", {"name": "eve", "password": PASSWORD}).status, 403)


class SetUp(OnDevice):
    with_accounts = False

    def test_only_the_device_or_the_code_makes_the_first(self) -> None:
        first = {"name": "alice", "password": PASSWORD}
        far = {"Host": "camera.example"}
        self.assertEqual(call("GET", "parameters").code, "setup_needed")
        self.assertEqual(self.begin_state(**far), (True, False, True))
        self.assertEqual(self.begin_state(**{"X-Forwarded-For": "192.0.2.1"}), (True, False, True))
        self.assertEqual(self.begin_state(), (True, True, False))
        self.assertEqual(call("POST", "setup", first, **far).status, 403)
        self.assertEqual(call("POST", "setup", {**first, "code": "0" * 12}, **far).status, 403)
        code = await_true(lambda: re.findall(r"set-up code: ([0-9a-f]+)", log()), "the code is logged")[-1]
        self.assertEqual(call("POST", "setup", {**first, "code": code}, **far).status, 201)
        self.assertEqual(call("POST", "setup", {**first, "name": "eve", "code": code}, **far).status, 403)
        self.assertEqual(call("POST", "setup", {**first, "name": "eve"}).status, 403)
        self.assertEqual(account("list").stdout, "alice administrator\n")

    def begin_state(self, **headers) -> tuple:
        return tuple(call("GET", "setup", **headers).json[key] for key in ("needed", "allowed", "code_needed"))

    def test_plain_http_stays_on_the_device(self) -> None:
        for listen, status in (("0.0.0.0:8081", 2), ("[::]:8081", 2), ("localhost:1", 1), ("127.0.0.1:8080", 1)):
            ended = subprocess.run(["kelconf-web", "--listen", listen], capture_output=True, timeout=LIMIT)
            self.assertEqual((ended.returncode, bool(ended.stderr)), (status, True), listen)


class Hostile(OnDevice):
    def test_nobody_blocks_the_others_or_grows_memory(self) -> None:
        head = f"PATCH /api/v1/parameters HTTP/1.1\r\nHost: x\r\nAuthorization: {basic('operator')}\r\n"
        huge = b"x" * 65536
        attacks = {
            "half a request": (b"GET /api/v1/sta", 0),
            "an endless head": (b"GET / HTTP/1.1\r\n" + b"X-A: b\r\n" * 100, 200),
            "an endless line": (b"GET /", 200),
            "no HTTP": (b"\x16\x03\x01\x00\xff\x00" * 50, 0),
            "100 MB, told": (head.encode() + b"Content-Length: 100000000\r\n\r\n", 1600),
            "100 MB, chunked": (head.encode() + b"Transfer-Encoding: chunked\r\n\r\n" + b"fffffff\r\n", 1600),
            "100 MB, nobody's": (b"POST /api/v1/import HTTP/1.1\r\nHost: x\r\nContent-Length: 100000000\r\n\r\n", 1600),
            "a body that stays out": (head.encode() + b"Content-Length: 1000\r\n\r\n{", 0),
            "a negative length": (head.encode() + b"Content-Length: -1\r\n\r\n{}", 0),
            "two lengths": (head.encode() + b"Content-Length: 2\r\nContent-Length: 30\r\n\r\n{}", 0),
        }
        self.parameter("net.name")
        before = self.memory()
        sockets = []
        for number, (begin, parts) in enumerate(attacks.values()):
            for again in range(10):
                hostile = connect(f"127.0.3.{number}")
                sockets.append(hostile)
                try:
                    hostile.sendall(begin)
                    hostile.settimeout(5)
                    for _ in range(parts if again == 0 else 0):
                        hostile.sendall(huge)
                except OSError:
                    pass  # it was cut
        self.assertEqual(call("GET", "status", role="viewer").status, 200)
        self.assertEqual(call("PATCH", "parameters", {"values": {"net.name": "on"}}, "operator").status, 200)
        self.assert_grew_less(before, 16384)
        for hostile in sockets:
            hostile.close()

    def test_a_body_has_its_limit_told_or_not(self) -> None:
        body = json.dumps({"values": {"net.name": "v" * 1_500_000}}).encode()
        self.assertEqual(call("PATCH", "parameters", role="operator", Content_Length="1500000").status, 413)
        with self.assertRaises((OSError, http.client.HTTPException)):  # the connection ends
            call("PATCH", "parameters", iter([body[:700000], body[700000:]]), "operator")
        self.assertEqual(self.parameter("net.name")["value"], "n")

    def test_who_does_not_read_costs_a_connection(self) -> None:
        before = self.memory()
        sleepers = []
        for number in range(50):
            sleeper = connect("127.0.4.1")
            sleeper.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            sleeper.sendall(f"GET /api/v1/{'events' if number % 2 else 'parameters'} HTTP/1.1\r\nHost: x\r\n"
                            f"Authorization: {basic('viewer')}\r\n\r\n".encode() * 20)
            sleepers.append(sleeper)
        reader = Events("?prefix=net.")
        value = "v" * 60000
        for number in range(60):
            call("PATCH", "parameters", {"store": "soon", "values": {"net.name": f"{number}{value}"}}, "operator")
        self.assertEqual(reader.next()["previous"], "n")
        self.assert_grew_less(before, 32768)
        for sleeper in [*sleepers, reader]:
            sleeper.close()

    def test_a_subscriber_that_falls_behind_is_told(self) -> None:
        slow = Events("?prefix=net.")
        self.addCleanup(slow.close)
        for number in range(120):  # far more than the ring and the socket hold
            call("PATCH", "parameters", {"store": "soon", "values": {"net.name": str(number) + "v" * 100000}}, "operator")
        self.assertEqual(slow.next("resync"), {})
        call("PATCH", "parameters", {"values": {"net.name": "end"}}, "operator")
        while slow.next()["value"] != "end":
            pass

    def test_a_thousand_subscribers(self) -> None:
        call("GET", "status", role="viewer")
        before = self.memory()
        subscribers = [Events(source=f"127.0.5.{number // 200}") for number in range(1000)]
        self.assert_grew_less(before, 32768)
        self.assertEqual(call("GET", "status", role="viewer").status, 200)
        call("PATCH", "parameters", {"values": {"net.name": "all"}}, "operator")
        self.assertEqual({subscriber.next()["value"] for subscriber in subscribers}, {"all"})
        for subscriber in subscribers:
            subscriber.close()


if __name__ == "__main__":
    resource.setrlimit(resource.RLIMIT_NOFILE, (resource.getrlimit(resource.RLIMIT_NOFILE)[1],) * 2)
    unittest.main(verbosity=2)
