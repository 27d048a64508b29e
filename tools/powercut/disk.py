"""What a power cut can leave of files that were being written.

A Disk follows a trace (recording.py) and knows what is on the medium for sure and what is only on
its way, by the letter of POSIX: fsync and fdatasync bring the file's data and size alone, a name is
there for sure by fsync of its directory, sync brings everything. Whatever else is on its way arrives
or not: names and sizes in the order in which they were changed, as most file systems have it, or
each by itself. Data are lost by blocks of 4 KiB: each unflushed block may be there as it was flushed
last or as any write since has left it; one that was never written reads as zeros. A rename is one
step.
"""

import functools
import itertools
import random
from collections import defaultdict
from collections.abc import Callable, Iterator
from typing import Any, NamedTuple

from recording import Record

BLOCK = 4096
SIZE, NAME = -1, -2  # in the place of a block

# The files by path, each as its size and its blocks by number; without
# their last zeros, those that hold nothing else left out.
Image = tuple[tuple[str, int, tuple[tuple[int, bytes], ...]], ...]


def file_bytes(size: int, blocks: tuple[tuple[int, bytes], ...]) -> bytes:
    content = bytearray(size)
    for index, block in blocks:
        content[index * BLOCK : index * BLOCK + len(block)] = block
    return bytes(content[:size])


def image_of(files: dict[str, bytes]) -> Image:
    disk = Disk()
    for number, (path, content) in enumerate(files.items()):
        disk.apply(Record("create", path, number))
        disk.apply(Record("write", path, number, 0, content))
    return next(disk.images(1))[0]


class Change(NamedTuple):
    """A name, a size or a block on its way."""

    at: int  # number of the record
    record: Record
    index: int  # of the block, or SIZE, NAME
    value: Any = None

    def __str__(self) -> str:
        what = {SIZE: "size", NAME: "name"}.get(self.index, f"block {self.index}")
        return f"{what} of {self.record.path.rpartition('/')[2]} #{self.at}"


class State:
    def __init__(self, names: dict[str, int]) -> None:
        self.names = dict(names)
        self.files: dict[int, dict[int, Any]] = defaultdict(lambda: {SIZE: 0})

    def make(self, change: Change) -> None:
        record = change.record
        if change.index != NAME:
            self.files[record.file][change.index] = change.value
            return
        old = record.data.decode() if record.operation == "rename" else record.path
        if record.operation in ("unlink", "rename") and self.names.get(old) == record.file:
            del self.names[old]
        if record.operation != "unlink":
            self.names[record.path] = record.file

    def image(self) -> Image:
        files = []
        for path, number in sorted(self.names.items()):
            content = self.files[number]
            size = content[SIZE]
            blocks = sorted(one for one in content.items() if one[1] and 0 <= one[0] * BLOCK < size)
            files.append((path, size, tuple(blocks)))
        return tuple(files)


class Disk:
    def __init__(self) -> None:
        self.at = 0
        self.durable = State({})
        self.now: dict[int, bytearray] = defaultdict(bytearray)  # the files, as programs see them
        self.pending: list[Change] = []

    def apply(self, record: Record) -> None:
        """The next one of the trace; marks do nothing."""
        self.at += 1
        match record.operation:
            case "create" | "unlink" | "rename" | "link":
                self.pending.append(Change(self.at, record, NAME))
            case "write" | "truncate":
                self._change_data(record)
            case "sync":
                self._settle(lambda change: True)
            case "names":
                self._settle(lambda change: change.index == NAME
                             and change.record.path.rpartition("/")[0] == record.path)
            case "fsync" | "fdatasync":
                self._settle(lambda change: change.index != NAME
                             and change.record.file == record.file)

    def _change_data(self, record: Record) -> None:
        now, begin = self.now[record.file], record.number
        before, end = len(now), begin + len(record.data)
        now.extend(bytes(max(0, end - before)))
        if record.operation == "truncate":
            end = before
            del now[begin:]
        else:
            now[begin:end] = record.data
        for i in range(begin // BLOCK, -(-end // BLOCK)):
            block = bytes(now[i * BLOCK : (i + 1) * BLOCK]).rstrip(b"\0")
            self.pending.append(Change(self.at, record, i, block))
        if len(now) != before:
            self.pending.append(Change(self.at, record, SIZE, len(now)))

    def _settle(self, which: Callable[[Change], bool]) -> None:
        for change in filter(which, self.pending):
            self.durable.make(change)
        self.pending = list(itertools.filterfalse(which, self.pending))

    def images(self, most: int) -> Iterator[tuple[Image, list[Change]]]:
        """Images that a cut now can leave, and what each lacks.

        At most `most` (see choices) for each prefix of the names and sizes, and as many in which
        these, too, arrive each by itself. The first lacks nothing, the last has nothing of what is
        on its way; one may come several times.
        """
        cuts = {change.at for change in self.pending if change.index < 0}
        for cut in sorted(cuts | {0}, reverse=True):
            yield from self._images([None if change.index >= 0 else change.at <= cut
                                     for change in self.pending], most)
        yield from self._images([None] * len(self.pending), most)

    def _images(self, arrives: list[bool | None], most: int) -> Iterator[tuple[Image, list[Change]]]:
        """`arrives`: which changes do; None where both are possible."""
        names = State(self.durable.names)
        named = set()
        for change, known in zip(self.pending, arrives):
            if change.index == NAME and known:
                names.make(change)
            elif change.index == NAME and known is None:
                named.add(change.record.file)
        named.update(names.names.values())
        changes = [(change, known) for change, known in zip(self.pending, arrives)
                   if change.index == NAME or change.record.file in named]
        for choice in choices(sum(known is None for _, known in changes), most):
            state, lost, chosen = State(self.durable.names), [], iter(choice)
            state.files.update((file, dict(self.durable.files[file])) for file in named)
            for change, known in changes:
                if next(chosen) if known is None else known:
                    state.make(change)
                else:
                    lost.append(change)
            yield state.image(), lost


@functools.cache
def choices(count: int, most: int) -> list[tuple[bool, ...]]:
    """For each of `count` things whether it is kept: all ways where there are at most `most`; else
    those in which all, nothing, one thing or a prefix is lost or alone survives, and others drawn
    with a fixed seed, until there are `most`."""
    if count < 20 and 2**count <= most:
        return list(itertools.product((True, False), repeat=count))
    every = range(count)
    chosen = [(others,) * count for others in (True, False)]
    chosen += [tuple((i == one) != others for i in every) for others in (True, False) for one in every]
    chosen += [tuple((i < split) == kept for i in every)
               for split in range(2, count) for kept in (True, False)]
    drawn = random.Random(2011)
    while len(chosen) < most:  # by turns two things lost, and anything
        two = (drawn.randrange(count), drawn.randrange(count)) if len(chosen) % 2 else every
        chosen.append(tuple(i not in two or (two is every and drawn.random() < 0.5) for i in every))
    return chosen[:most]
