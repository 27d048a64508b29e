"""kelconfd under a fault: started, given changes, ended."""

import os
import pathlib
import signal
import socket
import subprocess
import time

import kelbus
import recording
from judge import BACKUP_DB, BUILD, LATER, LIVE, STORED, Promises, Values, sealed
from recording import Record
from scenes import CONTROL

SHIM, RECORDER = BUILD / "libexec/fault_shim.so", BUILD / "libexec/powercut_recorder.so"
TRACE, HEALED = pathlib.Path("/tmp/storage-calls"), pathlib.Path("/tmp/healed")
CONSOLE = pathlib.Path("/var/log/console")
KINDS = {LATER: kelbus.Kind.SET, STORED: kelbus.Kind.DIRECT}
POLL = 0.01  # s
STILL = 15  # polls: longer than a period of the upkeep, which the recorder lets pass faster
PATIENCE = 1000  # polls

# What is set under the fault.
CHANGES = [
    (STORED, {"private.short": "under a fault"}),
    (STORED, {f"private.v{i}": "many" * 40 for i in range(10, 14)} | {"private.user_password": "other"}),
    (LATER, {"private.v12": "ordinary"}),
    (STORED, {"private.long": "z" * 2700}),
]


class Service:
    """A process of kelconfd with this plan of the fault library; none: no fault."""

    def __init__(self, plan: str = "", trace: bool = False) -> None:
        HEALED.unlink(missing_ok=True)
        pathlib.Path(recording.PATH).write_bytes(b"")
        pathlib.Path("/tmp/powercut.control").write_bytes(bytes(CONTROL.size))
        self.logged = CONSOLE.stat().st_size if CONSOLE.exists() else 0
        # The fault library first; the recorder lets waits pass faster and makes no flush.
        environment = dict(os.environ, LD_PRELOAD=f"{SHIM}:{RECORDER}", KELCONF_FAULT_UNTIL=str(HEALED))
        environment |= {"KELCONF_FAULT": plan} if plan else {}
        environment |= {"KELCONF_FAULT_TRACE": str(TRACE)} if trace else {}
        notify = pathlib.Path("/tmp/notify")
        notify.unlink(missing_ok=True)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ready:
            ready.bind(str(notify))
            ready.settimeout(POLL)
            self.process = subprocess.Popen(["kelconfd"], stderr=subprocess.DEVNULL,
                                            env=environment | {"NOTIFY_SOCKET": str(notify)})
            self.ready = self._await(ready)

    def _await(self, ready: socket.socket) -> bool:
        for _ in range(PATIENCE):
            try:
                ready.recv(64)
                return True
            except TimeoutError:
                if self.process.poll() is not None:
                    return False
        return False

    def log(self) -> str:
        with open(CONSOLE, "rb") as console:
            console.seek(self.logged)
            return console.read().decode(errors="replace")

    def change(self, promises: Promises) -> None:
        """Sends CHANGES as long as they are answered."""
        first = max(number for sent in promises.sent.values() for _, number, _ in sent) + 1
        for number, (promise, values) in enumerate(CHANGES, first):
            promises.take(Record("sent", number=number, data=recording.packed((values, promise))))
            try:
                with kelbus.Client(timeout=60) as bus:
                    bus.set_many(values, KINDS[promise])
            except (kelbus.NoService, kelbus.UnknownName):
                return  # what it serves is judged after
            promises.take(Record("answered", number=number, data=recording.packed(promise)))

    def values(self) -> Values:
        with kelbus.Client(timeout=60) as bus:
            return bus.list()

    def settle(self) -> bool:
        """Until the backup is as the live file and nothing is done any more; or the process ends."""
        size, still = 0, 0
        for _ in range(PATIENCE):
            if self.process.poll() is not None:
                return False
            if still >= STILL and sealed(LIVE) and sealed(BACKUP_DB):
                if LIVE.read_bytes() == BACKUP_DB.read_bytes():
                    return True
            time.sleep(POLL)
            before, size = size, os.path.getsize(recording.PATH)
            still = still + 1 if size == before else 0
        return False

    def end(self, number: int = signal.SIGKILL) -> int:
        self.process.send_signal(number)
        return self.process.wait(60)
