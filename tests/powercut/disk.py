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
import math
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
    disk = Disk(ordered=True)
    for number, (path, content) in enumerate(files.items()):
        disk.apply(Record("create", path, number))
        disk.apply(Record("write", path, number, 0, content))
    return next(disk.images(1))[0]


class Change(NamedTuple):
    """A name, a size or a block on its way."""

    at: int  # number of the record
    where: tuple[int, int]  # inode number, and the number of the block, SIZE or NAME
    # Ordered: a name, a size, or a block emptied by a truncation, which comes after all earlier
    # writes of that block and before all later ones.
    in_order: bool
    record: Record
    value: Any = None

    def __str__(self) -> str:
        what = {SIZE: "size", NAME: "name"}.get(self.where[1], f"block {self.where[1]}")
        return f"{what} of {self.record.path.rpartition('/')[2]} #{self.at}"


class State:
    def __init__(self, names: dict[str, int]) -> None:
        self.names = dict(names)
        self.files: dict[int, dict[int, Any]] = defaultdict(lambda: {SIZE: 0})

    def make(self, change: Change) -> None:
        (file, index), record = change.where, change.record
        if index != NAME:
            self.files[file][index] = change.value
            return
        old = record.data.decode() if record.operation == "rename" else record.path
        if record.operation in ("unlink", "rename") and self.names.get(old) == file:
            del self.names[old]
        if record.operation != "unlink":
            self.names[record.path] = file

    def image(self) -> Image:
        files = []
        for path, number in sorted(self.names.items()):
            content = self.files[number]
            size = content[SIZE]
            blocks = sorted(one for one in content.items() if one[1] and 0 <= one[0] * BLOCK < size)
            files.append((path, size, tuple(blocks)))
        return tuple(files)


class Disk:
    def __init__(self, ordered: bool) -> None:
        self.ordered = ordered
        self.at = 0
        self.durable = State({})
        self.now: dict[int, bytearray] = defaultdict(bytearray)  # the files, as programs see them
        self.pending: list[Change] = []

    def apply(self, record: Record) -> None:
        """The next one of the trace; marks do nothing."""
        self.at += 1
        match record.operation:
            case "create" | "unlink" | "rename" | "link":
                self._add(record, NAME, True)
            case "write" | "truncate":
                self._change_data(record)
            case "sync":
                self._settle(lambda change: True)
            case "names":
                self._settle(lambda change: change.in_order or (
                    change.where[1] == NAME
                    and change.record.path.rpartition("/")[0] == record.path))
            case "fsync" | "fdatasync":
                if record.operation == "fsync" or any(
                        change.in_order and change.where[0] == record.file for change in self.pending):
                    self._settle(lambda change: change.in_order)
                self._settle(lambda change: change.where[0] == record.file and change.where[1] != NAME)

    def _add(self, record: Record, index: int, in_order: bool, value: Any = None) -> None:
        where = record.file, index
        self.pending.append(Change(self.at, where, in_order and self.ordered, record, value))

    def _change_data(self, record: Record) -> None:
        now, begin, cut = self.now[record.file], record.number, record.operation == "truncate"
        before, end = len(now), begin + len(record.data)
        now.extend(bytes(max(0, end - before)))
        if cut:
            end = before
            del now[begin:]
        else:
            now[begin:end] = record.data
        for i in range(begin // BLOCK, -(-end // BLOCK)):
            block = bytes(now[i * BLOCK : (i + 1) * BLOCK]).rstrip(b"\0")
            self._add(record, i, cut and begin <= i * BLOCK, block)
        if len(now) != before:
            self._add(record, SIZE, True, len(now))

    def _settle(self, which: Callable[[Change], bool]) -> None:
        """These are durable from now on; a truncation undoes what was written before it."""
        emptied = {change.where: change.at for change in self.pending
                   if change.in_order and change.where[1] >= 0 and which(change)}
        left = [change for change in self.pending if change.at >= emptied.get(change.where, 0)]
        for change in filter(which, left):
            self.durable.make(change)
        self.pending = list(itertools.filterfalse(which, left))

    def images(self, most: int) -> Iterator[tuple[Image, list[Change]]]:
        """Images that a cut now can leave, and what each lacks.

        At most `most` of them (see choices; ordered: for each prefix of what comes in order). The
        first lacks nothing; one may come several times.
        """
        cuts = {change.at for change in self.pending if change.in_order}
        for cut in sorted(cuts | {0}, reverse=True):
            yield from self._images_up_to(cut, most)

    def _images_up_to(self, cut: int, most: int) -> Iterator[tuple[Image, list[Change]]]:
        late = [change for change in self.pending if change.in_order and change.at > cut]
        truncated = {change.where: change.at for change in reversed(late)}
        changes = [change for change in self.pending
                   if change.at < truncated.get(change.where, math.inf)
                   and not (change.in_order and change.at > cut)]
        names = State(self.durable.names)
        for change in changes:
            if change.in_order:
                names.make(change)
        named = set(names.names.values())
        named |= {c.where[0] for c in changes if c.where[1] == NAME and not c.in_order}
        changes = [c for c in changes if c.where[1] == NAME or c.where[0] in named]
        for choice in choices(sum(not change.in_order for change in changes), most):
            state, lost, kept = State(self.durable.names), list(late), iter(choice)
            state.files.update((file, dict(self.durable.files[file])) for file in named)
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
