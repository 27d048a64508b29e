"""Flipped bits: files of the store, and of the builder, singly and in pairs."""

import itertools
import os
import random
from collections.abc import Iterator

import states
from judge import BACKUP_DB, FACTORY, LIVE, Starter, Values, rows, sealed, tree_of, write_tree
from states import Files, State
from verdict import Table, Verdict, kept

SEAL, LIVE_MD5, BACKUP_MD5 = f"{LIVE}.seal", f"{LIVE}.md5", f"{BACKUP_DB}.md5"
JOURNAL, FACTORY_MD5 = f"{LIVE}-journal", f"{FACTORY}.md5"
LIVE_SIDE, BACKUP_SIDE = {str(LIVE), LIVE_MD5, SEAL, JOURNAL}, {str(BACKUP_DB), BACKUP_MD5}
WORDS = {str(LIVE): "live file", LIVE_MD5: "its sidecar", SEAL: "its seal", JOURNAL: "its journal",
         str(BACKUP_DB): "backup", BACKUP_MD5: "backup's sidecar", str(FACTORY): "default.db",
         FACTORY_MD5: "its sidecar"}
PAIRS = [(str(LIVE), str(BACKUP_DB)), (str(LIVE), LIVE_MD5), (str(LIVE), SEAL), (str(LIVE), str(LIVE)),
         (str(LIVE), BACKUP_MD5), (LIVE_MD5, SEAL), (LIVE_MD5, str(BACKUP_DB)), (LIVE_MD5, BACKUP_MD5),
         (SEAL, str(BACKUP_DB)), (str(BACKUP_DB), BACKUP_MD5)]
JOURNAL_PAIRS = [(JOURNAL, str(LIVE)), (JOURNAL, LIVE_MD5), (JOURNAL, SEAL), (JOURNAL, str(BACKUP_DB))]
# The others are alike in what a start looks at: each seventh byte there.
EVERY_BYTE = {"backed up": [], "stale backup": [str(LIVE), str(BACKUP_DB)], "hot journal": [JOURNAL],
              "cut before the seal": [str(LIVE)]}
HEADER_SIZE = 100  # of an SQLite file
PAGE = 4096

Flip = tuple[str, int, int]  # path, byte, bit


def flipped(files: Files, flips: list[Flip]) -> Files:
    harmed = dict(files)
    for path, at, bit in flips:
        content = bytearray(harmed[path])
        content[at] ^= 1 << bit
        harmed[path] = bytes(content)
    return harmed


def described(flips: list[Flip]) -> str:
    return ", ".join(f"{WORDS[path]} byte {at} bit {bit}" for path, at, bit in flips)


def every_byte(files: Files, path: str, step: int) -> Iterator[list[Flip]]:
    """One bit of each; all eight of a file that has few."""
    size = len(files[path])
    bits = range(8) if size < 200 else [None]
    chosen = random.Random(path)
    for at in range(0, size, step if size >= 200 else 1 + step // 97):
        for bit in bits:
            yield [(path, at, chosen.randrange(8) if bit is None else bit)]


def few_of_each_page(files: Files, path: str, each: int) -> Iterator[list[Flip]]:
    chosen = random.Random(path)
    for page in range(0, len(files[path]), PAGE):
        for _ in range(each):
            yield [(path, page + chosen.randrange(PAGE), chosen.randrange(8))]


def pairs(files: Files, one: str, other: str, count: int) -> Iterator[list[Flip]]:
    """Every fourth in the headers."""
    chosen = random.Random(one + other)

    def somewhere(path: str) -> Flip:
        size = len(files[path])
        if chosen.randrange(4) == 0:
            size = min(size, HEADER_SIZE)
        return path, chosen.randrange(size), chosen.randrange(8)

    for _ in range(count):
        first, second = somewhere(one), somewhere(other)
        if first != second:
            yield [first, second]


def judged(state: State, flips: list[Flip], status: int, served: Values, log: str
           ) -> tuple[Verdict, str]:
    if status != 0:
        return Verdict.NO_START, f"wait status {status}"
    harmed = {path for path, *_ in flips}
    live, backup = bool(harmed & LIVE_SIDE), bool(harmed & BACKUP_SIDE)
    verdict, why = kept(state.promises, served, log)
    if verdict == Verdict.SURVIVED:
        return verdict, why
    if "nothing vouches" in log:
        return (Verdict.UNPROVEN if live and backup else Verdict.LOST), why
    if state.name == "cut before the seal" and live and "recovered from an interrupted" in log:
        return Verdict.UNPROVEN, why  # no seal was ever written for what lies there
    if served == state.backed_up and "from the backup" in log:
        return (Verdict.BACKUP if live else Verdict.LOST), why
    if served == state.defaults() and "made new" in log:
        return (Verdict.DEFAULTS if live and backup else Verdict.LOST), why
    return verdict, why


def judge_flips(table: Table, starter: Starter, kind: str, state: State,
                all_flips: Iterator[list[Flip]]) -> None:
    """By the code that a start of kelconfd runs, and a second start after it."""
    for flips in all_flips:
        states.put(flipped(state.files, flips))
        status, served, log = starter.start()
        verdict, why = judged(state, flips, status, served, log)
        if status == 0 and verdict != Verdict.UNPROVEN:
            status, again, log = starter.start()
            if status != 0 or again != served or "live database sound" not in log:
                verdict, why = Verdict.WRONG, f"the second start differs: {log}"
        table.add(kind, verdict, described(flips), why)


def service_flips(name: str, table: Table, smoke: bool) -> Iterator[list[str]]:
    """From that state."""
    starter = Starter()
    state = states.make(name)
    write_tree(state.words)
    for path in [one for one in WORDS if one in state.files and not one.startswith(str(FACTORY))]:
        kind = f"flip, {name}: {WORDS[path]} ({len(state.files[path])} bytes)"
        step = 199 if smoke else 1 if path in EVERY_BYTE[name] else 7
        judge_flips(table, starter, kind, state, every_byte(state.files, path, step))
        yield [kind]
    for one, other in PAIRS + JOURNAL_PAIRS:
        if one in state.files and other in state.files and name in ("stale backup", "hot journal"):
            kind = f"two flips, {name}: {WORDS[one]}, {WORDS[other]}"
            judge_flips(table, starter, kind, state, pairs(state.files, one, other, 12 if smoke else 1000))
            yield [kind]
    starter.close()


def large_flips(table: Table, smoke: bool) -> Iterator[list[str]]:
    starter = Starter()
    state = states.make("stale backup", "large")
    write_tree(state.words)
    for path in (str(LIVE), str(BACKUP_DB)):
        pages = len(state.files[path]) // PAGE
        kind = f"flip, {len(state.promises.sent)} names: {WORDS[path]} ({pages} pages)"
        each = few_of_each_page(state.files, path, 3)
        judge_flips(table, starter, kind, state, itertools.islice(each, 0, None, 120 if smoke else 1))
        yield [kind]
    starter.close()


def run_init() -> int:
    pid = os.posix_spawnp("kelconf-init", ["kelconf-init"], os.environ)
    return os.waitpid(pid, 0)[1]


def factory_verdict(words: tuple[str, ...], before: bytes | None) -> tuple[Verdict, str]:
    """Of the factory database as it lies there; before: its bytes when it was right."""
    if not sealed(FACTORY):
        return Verdict.NO_START, "not sealed"
    if rows(FACTORY, "CONFIGDEFAULT") != tree_of(words):
        return Verdict.WRONG, "sealed, with other rows"
    same = before is not None and FACTORY.read_bytes() == before
    return (Verdict.SURVIVED if same else Verdict.DEFAULTS), ""


def builder_flips(table: Table, smoke: bool) -> Iterator[list[str]]:
    step, count = (199, 12) if smoke else (1, 1000)
    for words in (("small",), ("large",)):
        write_tree(words)
        states.put({})
        run_init()
        files = {str(path): path.read_bytes() for path in (FACTORY, FACTORY.with_name("default.db.md5"))}
        kinds = []

        def judge(kind: str, all_flips: Iterator[list[Flip]]) -> None:
            kinds.append(kind)
            for flips in all_flips:
                states.put(flipped(files, flips))
                status = run_init()
                verdict, why = factory_verdict(words, None)
                table.add(kind, verdict if status == 0 else Verdict.NO_START, described(flips), why)

        if words == ("large",):
            pages = len(files[str(FACTORY)]) // PAGE
            each = few_of_each_page(files, str(FACTORY), 1)
            judge(f"flip, {len(tree_of(words))} names: default.db ({pages} pages)",
                  each if not smoke else (flip for i, flip in enumerate(each) if i % 40 == 0))
        else:
            for path, content in files.items():
                judge(f"flip: {'default.db' if path == str(FACTORY) else 'default.db.md5'} "
                      f"({len(content)} bytes)", every_byte(files, path, step))
            judge("two flips: default.db, its sidecar", pairs(files, *files, count))
            judge("two flips: default.db, default.db", pairs(files, str(FACTORY), str(FACTORY), count))
        yield kinds
