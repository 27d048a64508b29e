"""What happens to the service before the power is cut: short scripts (scenes.txt)."""

import contextlib
import hashlib
import os
import pathlib
import signal
import socket
import sqlite3
import struct
import subprocess
import time

import kelbus
import recording
from disk import Disk, Image, image_of
from judge import (BACKUP_DB, BUILD, LATER, LIVE, NOTHING, STORED, put_image, sealed, stored_files,
                   tree_of, write_tree)
from recording import mark

CONTROL = struct.Struct("<3i8s32s")  # as in recorder.cpp
POLL = 0.02  # s
PATIENCE = 3000  # polls until a scene has failed
PROMISES = {"weak": NOTHING, "set": LATER, "direct": STORED}  # of the verbs that set a value
STILL = 10  # polls, two periods of the upkeep


def scenes() -> dict[str, str]:
    lines = (pathlib.Path(__file__).parent / "scenes.txt").read_text().splitlines()
    return dict(line.split(":", 1) for line in lines if ":" in line and not line.startswith("#"))


def play(script: str) -> str:
    """On an emptied device, with the recorder in the programs. Empty, or the step that failed."""
    stage = Stage()
    try:
        if not script.startswith(" tree"):
            stage.do_tree()
        for step in script.split(";"):
            verb, *words = step.split()
            if verb in PROMISES:
                stage.send(PROMISES[verb], *words)
            elif verb == "quiet":
                mark(verb)
            else:
                getattr(stage, "do_" + verb)(*words)
    except (RuntimeError, OSError, AttributeError) as error:
        return f"{step}: {error}"
    finally:
        stage.end_service(signal.SIGKILL)
    return ""


class Stage:
    """A method for each verb of scenes.txt."""

    def __init__(self) -> None:
        put_image(())
        pathlib.Path(recording.PATH).write_bytes(b"")
        pathlib.Path("/tmp/powercut.control").write_bytes(bytes(CONTROL.size))
        self.recorded = dict(os.environ, LD_PRELOAD=str(BUILD / "libexec/powercut_recorder.so"))
        self.service: subprocess.Popen | None = None
        self.sets = 0

    def end_service(self, number: int) -> None:
        if self.service:
            self.service.send_signal(number)
            self.service.wait()

    def do_tree(self, *words: str) -> None:
        self.tree = tree_of(words)
        write_tree(words)
        mark("tree", words)

    def do_database(self, *words: str) -> None:
        mark("quiet")
        rows = (self.tree | {"private.short": "by hand"}).items()
        with contextlib.closing(sqlite3.connect(LIVE, isolation_level=None)) as database:
            database.execute("CREATE TABLE CONFIG (NAME TEXT PRIMARY KEY, VALUE TEXT, TYPE TEXT)")
            database.executemany("INSERT INTO CONFIG VALUES (?, ?, 'string')", rows)
        if "sealed" in words:
            pathlib.Path(f"{LIVE}.md5").write_bytes(hashlib.md5(LIVE.read_bytes()).digest())
        self.sets += 1
        mark("sent", ({"private.short": "by hand"}, STORED), self.sets)
        mark("answered", STORED, self.sets)
        self._replace_flash(image_of(stored_files()))

    def do_init(self) -> None:
        subprocess.run(["kelconf-init"], env=self.recorded, check=True)

    def do_start(self) -> None:
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ready:
            path = pathlib.Path("/tmp/notify")
            path.unlink(missing_ok=True)
            ready.bind(str(path))
            ready.settimeout(60)
            environment = self.recorded | {"NOTIFY_SOCKET": str(path)}
            self.service = subprocess.Popen(["kelconfd"], env=environment)
            ready.recv(64)

    def send(self, promise: int, word: str, value: str) -> None:
        if value[0] == "@":
            value = value[-1] * int(value[1:-1])
        names = [name for name in self.tree
                 if name == "private." + word or (word == "v*" and name.startswith("private.v"))]
        self.sets += 1
        mark("sent", (dict.fromkeys(names, value), promise), self.sets)
        kind = kelbus.Kind.SET if promise == LATER else kelbus.Kind.DIRECT
        with kelbus.Client(timeout=60) as bus:
            try:
                bus.set_many(dict.fromkeys(names, value), kind)
                mark("answered", promise, self.sets)
            except kelbus.NoService:
                self.service.wait(60)

    def do_settle(self) -> None:
        size, still = 0, 0
        for _ in range(PATIENCE):
            if still >= STILL and sealed(LIVE) and sealed(BACKUP_DB):
                if LIVE.read_bytes() == BACKUP_DB.read_bytes():
                    return mark("settled")
            time.sleep(POLL)
            before, size = size, os.path.getsize(recording.PATH)
            still = still + 1 if size == before else 0
        raise RuntimeError("not sealed, or the backup not as the live file")

    def do_stop(self) -> None:
        self.end_service(signal.SIGTERM)
        mark("settled")

    def do_kill(self) -> None:
        self.end_service(signal.SIGKILL)
        mark("ended")

    def do_fall(self) -> None:
        self.service.wait(60)
        mark("ended")
        self.do_heal()

    def do_cut(self) -> None:
        disk = Disk()
        for record in recording.read():
            disk.apply(record)
        *_, (last, _) = disk.images(2)
        self._replace_flash(last)

    def _replace_flash(self, image: Image) -> None:
        """These files lie there from now on, instead of what was recorded."""
        mark("quiet")
        for path in stored_files():
            recording.append("unlink", path)
        put_image(image)
        for path, content in stored_files().items():
            recording.append("create", path)
            recording.append("write", path, 0, content)
        mark("sync")
        mark("restored")

    def do_delete(self) -> None:
        recording.append("unlink", str(LIVE))
        LIVE.unlink()
        mark("sync")

    def do_damage(self, how: str, value: str) -> None:
        at, bad = LIVE.read_bytes().index(value.encode()), b"#"
        if how == "page":
            at, bad = at // 4096 * 4096, bytes(16)
        times = LIVE.stat()
        with open(LIVE, "r+b") as file:
            os.pwrite(file.fileno(), bad, at)
        os.utime(LIVE, ns=(times.st_atime_ns, times.st_mtime_ns))  # rot leaves no trace in the times
        recording.append("write", str(LIVE), at, bad)
        mark("sync")

    def do_fault(self, calls: str, path: str, skip: str, times: str, error: str) -> None:
        faults = CONTROL.pack(int(skip), int(times), int(error), calls.encode(),
                              b"" if path == "any" else path.encode())
        with open("/tmp/powercut.control", "r+b") as control:
            control.write(faults)

    def do_heal(self) -> None:
        self.do_fault("", "any", "0", "0", "0")
