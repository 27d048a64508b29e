"""Flash bytes and flushes of kelconfd, and of the described steps taken to the letter (bench/flash
--help). Inside a device root.

To the letter means: every changed row opens the database, stores itself in a transaction of its own
and closes it; then the digest, flushed; then sync. A backup copies the whole file, every five
seconds while something changes. This is done here, by this program, with the recorder in it.
"""

import hashlib
import os
import pathlib
import signal
import socket
import sqlite3
import subprocess
import sys
import time
from collections import Counter
from collections.abc import Iterator

import kelbus
import recording

CONF, BACKUP = pathlib.Path("/mnt/nand/conf"), pathlib.Path("/mnt/backup/conf")
LIVE, COPY = CONF / "conf.db", BACKUP / "conf_backup.db"
BUILD = pathlib.Path(os.environ["KELCONF_BUILD"])
RECORDED = dict(os.environ, LD_PRELOAD=str(BUILD / "libexec/powercut_recorder.so"))
HASTE = 50  # as in the recorder
HOUR = 3600  # changes
SHARE = 12  # of the hour is a twelfth taken to the letter, as every five minutes are alike

FAR = 37  # from one name to the next in the order of the tree: all over the file

# Which changes: names in each, how many of them, how far apart, kind.
SCENES = {
    "one name": (1, 1, 1, kelbus.Kind.DIRECT),
    "100 names of one group, at once": (100, 1, 1, kelbus.Kind.DIRECT),
    "100 names from all over, at once": (100, 1, FAR, kelbus.Kind.DIRECT),
    "1,000 names from all over, queued": (1000, 1, FAR, kelbus.Kind.SET),
    "an hour of one change a second, from all over": (1, HOUR, FAR, kelbus.Kind.DIRECT),
}


def changes_of(parameters: int, names: int, changes: int, apart: int, word: str
               ) -> Iterator[dict[str, str]]:
    for change in range(changes):
        value = f"{word} {names} {apart} {change}"
        numbers = range(change * names, (change + 1) * names)
        yield {f"cam.p{number * apart % parameters}": value for number in numbers}


def forget() -> None:
    pathlib.Path(recording.PATH).write_bytes(b"")


def counted(times: int = 1) -> tuple[Counter, Counter]:
    """Bytes, and flushes, by file."""
    written, flushes = Counter(), Counter()
    for record in recording.read():
        name = record.path.rpartition("/")[2] or "all"
        if record.operation == "write":
            written[name] += len(record.data) * times
        elif record.operation in ("fsync", "fdatasync", "names", "sync"):
            flushes[name] += times
    return written, flushes


# ---- The service --------------------------------------------------------------------------------


def start() -> subprocess.Popen:
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ready:
        ready.bind("/tmp/notify")
        service = subprocess.Popen(["kelconfd"], env=RECORDED | {"NOTIFY_SOCKET": "/tmp/notify"})
        ready.recv(64)
    os.unlink("/tmp/notify")
    return service


def settle() -> None:
    """Until nothing is written for so long that the next backup would be one after a quiet time."""
    size, still = -1, 0
    while still < 700 or not COPY.exists() or COPY.read_bytes() != LIVE.read_bytes():
        time.sleep(1 / HASTE)
        before, size = size, os.path.getsize(recording.PATH)
        still = still + 1 if size == before else 0


def by_service(parameters: int, names: int, changes: int, apart: int, kind: kelbus.Kind
               ) -> tuple[Counter, Counter]:
    settle()
    forget()
    with kelbus.Client(timeout=600) as bus:
        begin = time.monotonic()
        for i, values in enumerate(changes_of(parameters, names, changes, apart, "served"), 1):
            bus.set_many(values, kind)
            time.sleep(max(0, begin + i / HASTE - time.monotonic()))
        took = (time.monotonic() - begin) * HASTE
    if changes == 1:
        settle()
    else:
        print(f"{changes} changes in {took:.0f} seconds of the service's clock", file=sys.stderr)
    return counted()


# ---- To the letter ------------------------------------------------------------------------------


def seal(database: pathlib.Path) -> None:
    sidecar = os.open(f"{database}.md5", os.O_WRONLY | os.O_CREAT, 0o644)
    os.write(sidecar, hashlib.md5(database.read_bytes()).digest())
    os.fsync(sidecar)
    os.close(sidecar)


def store(name: str, value: str) -> None:
    database = sqlite3.connect(LIVE, isolation_level=None)
    database.execute("PRAGMA synchronous = NORMAL")
    database.execute("BEGIN")
    database.execute("UPDATE CONFIG SET VALUE = ? WHERE NAME = ?", (value, name))
    database.execute("END")
    database.close()


def back_up() -> None:
    source, copy = os.open(LIVE, os.O_RDONLY), os.open(COPY, os.O_WRONLY | os.O_CREAT | os.O_TRUNC)
    while part := os.read(source, 131072):
        os.write(copy, part)
    os.fsync(copy)
    os.close(copy)
    os.close(source)
    seal(COPY)
    os.sync()


def take_steps(parameters: int, names: int, changes: int, apart: int) -> None:
    """In a process of its own, with the recorder in it."""
    for i, values in enumerate(changes_of(parameters, names, changes, apart, "letter"), 1):
        for name, value in values.items():
            store(name, value)
        seal(LIVE)
        os.sync()
        if changes == 1 or i % 5 == 0:
            back_up()


def by_letter(parameters: int, names: int, changes: int, apart: int) -> tuple[Counter, Counter]:
    part = SHARE if changes == HOUR else 1
    forget()
    numbers = map(str, (parameters, names, changes // part, apart))
    subprocess.run([sys.executable, "-B", __file__, "steps", *numbers], env=RECORDED, check=True)
    return counted(part)


# ---- The tables ---------------------------------------------------------------------------------


def bench(parameters: int) -> dict:
    for path in [*CONF.iterdir(), *BACKUP.iterdir()]:
        path.unlink()
    leaves = "".join(f'<p{i} type="string">value of {i}</p{i}>' for i in range(parameters))
    pathlib.Path("/etc/neutral_tree.xml").write_text(f'<t><cam type="trunk">{leaves}</cam></t>')
    forget()
    pathlib.Path("/tmp/powercut.control").write_bytes(bytes(64))
    service = start()
    with kelbus.Client(timeout=60) as bus:
        bus.set("cam.p0", "first", kelbus.Kind.DIRECT)
    served = {scene: by_service(parameters, *how) for scene, how in SCENES.items()}
    service.send_signal(signal.SIGTERM)
    service.wait()
    return {scene: (*served[scene], *by_letter(parameters, *how[:3])) for scene, how in SCENES.items()}


def of_backup(counts: Counter) -> int:
    return sum(count for name, count in counts.items() if name.startswith("conf_backup"))


def main(sizes: list[int]) -> None:
    results = {parameters: bench(parameters) for parameters in sizes}
    print("| Parameters | Change | Live: bytes | flushes | to the letter: bytes | flushes "
          "| Backup: bytes | to the letter |\n|---|---|---|---|---|---|---|---|")
    for parameters, scenes in results.items():
        for scene, (written, flushes, steps_written, steps_flushes) in scenes.items():
            backup, steps_backup = of_backup(written), of_backup(steps_written)
            # A backup flushes itself, its sidecar, and then all.
            taken, steps_taken = flushes[COPY.name], steps_flushes[COPY.name]
            figures = [written.total() - backup, flushes.total() - of_backup(flushes) - taken,
                       steps_written.total() - steps_backup,
                       steps_flushes.total() - of_backup(steps_flushes) - steps_taken,
                       backup, steps_backup]
            print(f"| {parameters:,} | {scene} |", " | ".join(f"{figure:,}" for figure in figures), "|")
    print("\nFile by file, bytes / flushes (\"all\": sync; a directory: its names):\n")
    for parameters, scenes in results.items():
        for scene, (written, flushes, *_) in scenes.items():
            files = sorted(written | flushes)
            print(f"- {parameters:,}, {scene}:", ", ".join(
                f"{name} {written[name]:,} / {flushes[name]:,}" for name in files))


if sys.argv[1:2] == ["steps"]:
    take_steps(*map(int, sys.argv[2:]))
else:
    main([int(size) for size in sys.argv[1:]] or [500, 5000, 50000])
