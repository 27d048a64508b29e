"""What a power cut can leave of files that were being written.

A Disk follows a trace (recording.py) and knows what is on the medium for sure and what is only on its
way. Data are lost by blocks of 4 KiB: each unflushed block may be there as it was flushed last
or as any write since has left it; one that was never written reads as zeros. On names and sizes
two models differ:
  ordered  they arrive in the order in which they were changed; fsync of any file or directory
           brings all earlier ones, fdatasync of a file too when its own size or name is among
           them
  loose    each arrives or not, independently; fsync and fdatasync bring the file's data and
           size alone, a name is there for sure by fsync of its directory. The letter of POSIX.
A rename is one step in both; sync brings everything.
"""

import functools
import itertools
import random
from collections.abc import Callable, Iterator
from typing import Any, NamedTuple

from recording import Record

BLOCK = 4096
ZEROS = bytes(BLOCK)
SIZE, NAME = -1, -2  # in the place of a block

# The files by path, each as its size and its blocks by number; without those that hold zeros.
Image = tuple[tuple[str, int, tuple[tuple[int, bytes], ...]], ...]


def file_bytes(size: int, blocks: tuple[tuple[int, bytes], ...]) -> bytes:
    content = bytearray(size)
    for index, block in blocks:
        content[index * BLOCK : (index + 1) * BLOCK] = block
    return bytes(content[:size])


def image_of(files: dict[str, bytes]) -> Image:
    disk = Disk(ordered=True)
    for number, (path, content) in enumerate(files.items()):
        disk.apply(Record("create", path, number))
        disk.apply(Record("write", path, number, 0, content))
    return next(disk.images(1))[0]


class Change(NamedTuple):
    """A name, a size or a block on its way."""

    at: int  # number of the record
    file: int
    index: int  # of the block, or SIZE, NAME
    # Ordered: a name, a size, or a block emptied by a truncation, which comes after all earlier
    # writes of that block and before all later ones.
    in_order: bool
    path: str
    value: Any

    def __str__(self) -> str:
        what = {SIZE: "size", NAME: "name"}.get(self.index, f"block {self.index}")
        return f"{what} of {self.path.rpartition('/')[2]} #{self.at}"


class State:
    def __init__(self) -> None:
        self.names: dict[str, int] = {}
        self.files: dict[int, dict[int, Any]] = {}

    def make(self, change: Change) -> None:
        if change.index != NAME:
            self.files.setdefault(change.file, {SIZE: 0})[change.index] = change.value
            return
        record = change.value
        old = record.data.decode() if record.operation == "rename" else record.path
        if record.operation in ("unlink", "rename") and self.names.get(old) == record.file:
            del self.names[old]
        if record.operation != "unlink":
            self.names[record.path] = record.file

    def image(self) -> Image:
        files = []
        for path, number in sorted(self.names.items()):
            content = self.files.get(number, {SIZE: 0})
            blocks = sorted((i, block) for i, block in content.items()
                            if block and 0 <= i * BLOCK < content[SIZE])
            files.append((path, content[SIZE], tuple(blocks)))
        return tuple(files)


class Disk:
    def __init__(self, ordered: bool) -> None:
        self.ordered = ordered
        self.at = 0
        self.durable, self.now = State(), State()
        self.pending: list[Change] = []

    def apply(self, record: Record) -> None:
        """The next one of the trace; marks do nothing."""
        self.at += 1
        match record.operation:
            case "create" | "unlink" | "rename" | "link":
                self._add(record, NAME, True, record)
            case "write" | "truncate":
                self._change_data(record)
            case "sync":
                self._settle(lambda change: True)
            case "names":
                self._settle(lambda change: change.in_order or (
                    change.index == NAME and change.path.rpartition("/")[0] == record.path))
            case "fsync" | "fdatasync":
                if record.operation == "fsync" or any(
                        change.in_order and change.file == record.file for change in self.pending):
                    self._settle(lambda change: change.in_order)
                self._settle(lambda change: change.file == record.file and change.index != NAME)

    def _add(self, record: Record, index: int, in_order: bool, value: Any) -> None:
        change = Change(self.at, record.file, index, in_order and self.ordered, record.path, value)
        self.now.make(change)
        self.pending.append(change)

    def _change_data(self, record: Record) -> None:
        now = self.now.files.setdefault(record.file, {SIZE: 0})
        begin, size, cut = record.number, now[SIZE], record.operation == "truncate"
        end = size if cut else begin + len(record.data)
        data = bytes(max(0, end - begin)) if cut else record.data
        for i in range(begin // BLOCK, -(-end // BLOCK)):
            first, last = max(begin, i * BLOCK), min(end, (i + 1) * BLOCK)
            block = now.get(i) or ZEROS
            block = (block[: first - i * BLOCK] + data[first - begin : last - begin]
                     + block[last - i * BLOCK :])
            self._add(record, i, cut and begin <= i * BLOCK, None if block == ZEROS else block)
        after = begin if cut else max(size, end)
        if after != size:
            self._add(record, SIZE, True, after)

    def _settle(self, which: Callable[[Change], bool]) -> None:
        """These are durable from now on; a truncation undoes what was written before it."""
        emptied, left = set(), []
        for change in reversed(self.pending):
            if (change.file, change.index) in emptied:
                continue
            if change.in_order and change.index >= 0 and which(change):
                emptied.add((change.file, change.index))
            left.append(change)
        self.pending = []
        for change in reversed(left):
            if which(change):
                self.durable.make(change)
            else:
                self.pending.append(change)

    def images(self, most: int) -> Iterator[tuple[Image, list[Change]]]:
        """Images that a cut now can leave, and what each lacks.

        At most `most` of them (see choices; ordered: for each prefix of what comes in order). The
        first lacks nothing; one may come several times.
        """
        cuts = {change.at for change in self.pending if change.in_order}
        for cut in sorted(cuts | {0}, reverse=True):
            yield from self._images_up_to(cut, most)

    def _images_up_to(self, cut: int, most: int) -> Iterator[tuple[Image, list[Change]]]:
        names = State()
        names.names = dict(self.durable.names)
        closed = set()  # to what comes after a later truncation
        changes, late = [], []
        for change in self.pending:
            if change.in_order and change.at > cut:
                closed.add((change.file, change.index))
                late.append(change)
            elif (change.file, change.index) not in closed:
                changes.append(change)
                if change.index == NAME and change.in_order:
                    names.make(change)
        named = set(names.names.values())
        named |= {c.file for c in changes if c.index == NAME and not c.in_order}
        changes = [change for change in changes if change.index == NAME or change.file in named]
        free = sum(not change.in_order for change in changes)
        for choice in choices(free, most):
            state, lost, kept = State(), list(late), iter(choice)
            state.names = dict(self.durable.names)
            state.files = {file: dict(self.durable.files.get(file, {SIZE: 0})) for file in named}
            for change in changes:
                if change.in_order or next(kept):
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
