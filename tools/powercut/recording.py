"""What the programs of the device did to the files below /mnt, in the order in which it happened.

Operations of the recorder (recorder.cpp):
    create, unlink, link (path), rename (path: the new name, data: the old one)
    write (number: offset, data), truncate (number: new size), fsync, fdatasync
    names (a directory is flushed), sync (everything)
Marks of the scene between them, data in JSON:
    tree (words)        the parameter tree from now on
    sent (number: of the SET; name -> value, promise), answered (number)
    ended               the service, not orderly: what was answered and not promised may be gone
    settled             all that was answered is stored for good
    quiet, restored     nothing is judged between them: a fault that no store survives, or files
                        that are being put in place
"""

import json
import os
import struct
from typing import Any, NamedTuple

PATH = "/tmp/powercut.trace"
HEAD = struct.Struct("<12sIQqQ")


class Record(NamedTuple):
    operation: str
    path: str = ""
    file: int = 0  # inode number
    number: int = 0
    data: bytes = b""

    def __str__(self) -> str:
        size = f" {self.number}+{len(self.data)}" if self.operation in ("write", "truncate") else ""
        return f"{self.operation} {self.path}{size}"


def append(operation: str, path: str = "", number: int = 0, data: bytes = b"") -> None:
    file = os.lstat(path).st_ino if path else 0
    with open(PATH, "ab", buffering=0) as trace:
        head = HEAD.pack(operation.encode(), len(path), file, number, len(data))
        trace.write(head + path.encode() + data)


def packed(data: Any) -> bytes:
    return json.dumps(data).encode()


def mark(operation: str, data: Any = None, number: int = 0) -> None:
    append(operation, "", number, packed(data))


def read() -> list[Record]:
    records = []
    with open(PATH, "rb") as trace:
        while head := trace.read(HEAD.size):
            operation, path_size, file, number, data_size = HEAD.unpack(head)
            path = trace.read(path_size).decode()
            name = operation.rstrip(b"\0").decode()
            records.append(Record(name, path, file, number, trace.read(data_size)))
    return records
