"""States of the flash that faults meet, made by the programs themselves, and what was promised then."""

import copy
import pathlib
from typing import NamedTuple

import recording
from judge import BACKUP, Promises, Values, put_image, stored_files, tree_of, write_tree
from scenes import play

Files = dict[str, bytes]

BEGIN = " tree {tree}; init; start; direct short 1; direct long @2500a; direct user_password secret; settle"
CHANGES = "; direct short 2; direct v10 ten; direct v* @30y; direct v11 @900c; direct user_password hidden"
# After BEGIN. Where the service ends without an orderly stop, the backup is the one of BEGIN.
ENDS = {
    "backed up": CHANGES + "; stop",
    "stale backup": CHANGES + "; kill",
    "hot journal": CHANGES + "; fault w conf.db 1 1 -1; direct long @2600b; fall",
    "cut before the seal": CHANGES + "; fault w conf.db.md5 0 1 -1; direct long @2600b; fall",
}


class State(NamedTuple):
    name: str
    files: Files
    words: tuple[str, ...]  # about the tree
    promises: Promises
    backed_up: Values

    def restore(self) -> None:
        put(self.files)

    def defaults(self) -> Values:
        return tree_of(self.words)


def put(files: Files) -> None:
    put_image(())
    for path, content in files.items():
        pathlib.Path(path).write_bytes(content)


def promises_of() -> Promises:
    promises = Promises()
    for record in recording.read():
        promises.take(record)
    return promises


def latest(promises: Promises) -> Values:
    return {name: sent[promises.promised[name]][0] for name, sent in promises.sent.items()}


def make(name: str, tree: str = "small") -> State:
    begin = BEGIN.format(tree=tree)
    script = begin + ENDS[name]
    if failed := play(begin + "; stop"):
        raise RuntimeError(f"{begin}: {failed}")
    older = {path: content for path, content in stored_files().items()
             if path.startswith(str(BACKUP))}
    backed_up = latest(promises_of())
    if failed := play(script):
        raise RuntimeError(f"{script}: {failed}")
    files, promises = stored_files(), promises_of()
    if name == "backed up":
        backed_up = latest(promises)
    else:
        files |= older
    return State(name, files, (tree,), promises, backed_up)


def fresh() -> State:
    """A device that never ran: no file at all."""
    put({})
    words = ("small",)
    write_tree(words)
    pathlib.Path(recording.PATH).write_bytes(b"")
    recording.mark("tree", words)
    return State("first start", {}, words, promises_of(), {})


def copied(promises: Promises) -> Promises:
    return copy.deepcopy(promises)
