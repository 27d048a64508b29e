"""Judges disk images: starts the service on each and compares what it serves with what the clients
were promised. What is wrong with an image is told by kind:
  older      a value from before an answered one is served
  default    the tree's default instead of an answered one
  foreign    a value that was never sent, or none at all
  password   any of these in a password
  torn       a part of the values that were sent at once
  sidecar    does not match when the start is through
  backup     its sidecar matches, but it cannot be read
  second     a second start serves other values, or judges its file otherwise than sound
  start      ends or waits
  factory    kelconf-init leaves a database that is not sealed, or not a tree's
"""

import contextlib
import functools
import hashlib
import json
import os
import pathlib
import sqlite3
import subprocess
from collections import defaultdict

from disk import Image, file_bytes, image_of
from recording import Record

CONF, BACKUP = pathlib.Path("/mnt/nand/conf"), pathlib.Path("/mnt/backup/conf")
LIVE, BACKUP_DB, FACTORY = CONF / "conf.db", BACKUP / "conf_backup.db", CONF / "default.db"
BUILD = pathlib.Path(os.environ["KELCONF_BUILD"])
SWITCH = "private.encrypt_campass"  # a start sets it when it has scrambled the passwords
NOTHING, LATER, STORED = range(3)  # what an answer promises: nothing; by the next pass; now

Values = dict[str, str]
Words = tuple[str, ...]  # of a scene, about its tree


def tree_of(words: Words) -> Values:
    tree = {"short": "factory", "long": "factory", "user_password": "factory", "admin_passwd": "root",
            "encrypt_campass": "0" if "plain" in words else "1"}
    last = 14 if "small" in words else 4000 if "large" in words else 60
    tree |= {f"v{i}": ("factory" if i % 5 else "f" * 700) + str(i) for i in range(10, last)}
    if "new" in words:
        tree |= {"fresh": "factory", "fresh_password": "factory", "more": "m" * 2000}
    if "ext" in words:
        tree |= {f"x{i}": f"extension{i}" for i in range(10, 30)}
    return {"private." + name: value for name, value in tree.items()}


def write_tree(words: Words) -> None:
    leaves: dict[str, str] = defaultdict(str)
    for name, value in tree_of(words).items():
        leaf = name.partition(".")[2]
        leaves["ext" if leaf[0] == "x" else "neutral"] += f'<{leaf} type="string">{value}</{leaf}>'
    for tree in ("ext", "neutral"):
        path = pathlib.Path(f"/etc/{tree}_tree.xml")
        path.unlink(missing_ok=True)
        if tree in leaves:
            path.write_text(f'<t><private type="trunk">{leaves[tree]}</private></t>')


def stored_files() -> dict[str, bytes]:
    return {str(path): path.read_bytes() for path in [*CONF.iterdir(), *BACKUP.iterdir()]}


def put_image(image: Image) -> None:
    for path in [*CONF.iterdir(), *BACKUP.iterdir()]:
        path.unlink()
    for path, size, blocks in image:
        pathlib.Path(path).write_bytes(file_bytes(size, blocks))


def sealed(database: pathlib.Path) -> bool:
    sidecar = pathlib.Path(f"{database}.md5")
    return (database.exists() and sidecar.exists()
            and hashlib.md5(database.read_bytes()).digest() == sidecar.read_bytes())


def rows(database: pathlib.Path, table: str) -> Values:
    with contextlib.closing(sqlite3.connect(database)) as connection:
        return dict(connection.execute(f"SELECT NAME, VALUE FROM {table}"))


class Promises:
    """What may be served, following the marks of a trace."""

    def __init__(self) -> None:
        self.trees: list[Words] = []  # all so far
        self.quiet = False
        # By name all values that were sent, beginning with the default, each with the number of its
        # SET and what its answer promises; and from which of them on all may be served.
        self.sent: dict[str, list[tuple[str, int, int]]] = {}
        self.promised: dict[str, int] = {}
        self.answered: set[int] = set()

    def take(self, mark: Record) -> None:
        match mark.operation:
            case "tree":
                self.trees.append(tuple(json.loads(mark.data)))
                for name, value in tree_of(self.trees[-1]).items():
                    self.sent.setdefault(name, [(value, 0, NOTHING)])
                    self.promised.setdefault(name, 0)
            case "sent":
                values, promise = json.loads(mark.data)
                for name, value in values.items():
                    self.sent[name].append((value, mark.number, promise))
            case "answered":
                self.answered.add(mark.number)
                if json.loads(mark.data) == STORED:
                    self._keep_answered(LATER)
            case "settled":
                self._keep_answered(NOTHING)
            case "ended":
                self.answered.clear()
        if mark.operation in ("settled", "quiet", "restored"):
            self.quiet = mark.operation == "quiet"

    def _keep_answered(self, least: int) -> None:
        """What was answered with at least this promise binds from now on."""
        for name, sent in self.sent.items():
            bound = [i for i, (_, number, promise) in enumerate(sent)
                     if number in self.answered and promise >= least]
            self.promised[name] = max([self.promised[name], *bound])

    def failures(self, served: Values) -> dict[str, str]:
        found: dict[str, str] = {}
        together: dict[int, set[bool]] = defaultdict(set)
        for name, sent in self.sent.items():
            value = served.get(name, "missing")
            at = [i for i, one in enumerate(sent) if one[0] == value]
            together[sent[-1][1]].add(bool(at) and at[-1] == len(sent) - 1)
            if (at and at[-1] >= self.promised[name]) or (name == SWITCH and value == "1"):
                continue
            kind = ("password" if "passw" in name else "foreign" if not at
                    else "older" if at[0] else "default")
            promised = sent[self.promised[name]][0]
            found.setdefault(kind, f"{name} is {value[:12]}, promised {promised[:12]}")
        if any(len(new) > 1 for number, new in together.items() if number):
            found["torn"] = "some are new, some old"
        return found


class Starter:
    """Starts the live store on the files that are there (starter.cpp)."""

    def __init__(self) -> None:
        self.process = subprocess.Popen([BUILD / "libexec/powercut-starter"], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE)

    def close(self) -> None:
        self.process.communicate()

    def start(self) -> tuple[int, Values, str]:
        """The wait status, and when that is 0 what would be served and what was logged."""
        self.process.stdin.write(b"s")
        self.process.stdin.flush()
        status = int(self.process.stdout.readline())
        if status != 0:
            return status, {}, ""
        lines = pathlib.Path("/tmp/powercut.values").read_text(errors="replace").split("\n")
        log = pathlib.Path("/tmp/powercut.log").read_text(errors="replace")
        return 0, dict(zip(lines[::2], lines[1::2])), log


class Judge:
    def __init__(self) -> None:
        self.starter = Starter()

    def failures(self, image: Image, promises: Promises, factory: bool) -> dict[str, str]:
        """`factory`: the image holds the factory database alone."""
        if factory:
            return self._wrong_factory(image, tuple(promises.trees))
        served, _, after, wrong = self._start(image, promises.trees[-1])
        if served is None:
            return wrong
        second, log, *_ = self._start(after, promises.trees[-1])
        if second != served or "live database sound" not in log:
            wrong = wrong | {"second": "serves other values" if second != served else log}
        return wrong | promises.failures(served)

    @functools.cache
    def _start(self, image: Image, words: Words) -> tuple[Values | None, str, Image, dict[str, str]]:
        """What the service serves on these files, what it logs, and the files after that."""
        write_tree(words)
        put_image(image)
        status, served, log = self.starter.start()
        if status != 0:
            return None, "", image, {"start": f"wait status {status}"}
        wrong = {} if sealed(LIVE) else {"sidecar": "of the live file"}
        try:
            if sealed(BACKUP_DB):
                rows(BACKUP_DB, "CONFIG")
        except sqlite3.Error as error:
            wrong["backup"] = str(error)
        return served, log, image_of(stored_files()), wrong

    @functools.cache
    def _wrong_factory(self, image: Image, trees: tuple[Words, ...]) -> dict[str, str]:
        write_tree(trees[-1])
        put_image(image)
        status = subprocess.run(["kelconf-init"]).returncode
        made = status == 0 and sealed(FACTORY)
        if made and any(rows(FACTORY, "CONFIGDEFAULT") == tree_of(words) for words in trees):
            return {}
        return {"factory": "other rows than a tree's" if made else f"not sealed, status {status}"}
