"""The program itself: kelconfd on files with flipped bits (a sample: the whole sweep starts its live
store alone), and on a file system that is full."""

import os
import pathlib
import random
from collections.abc import Iterator

import states
from flips import PAIRS, WORDS, Flip, described, flipped, judged, run_init, factory_verdict
from judge import Starter, write_tree
from recording import Record
from service import Service
from verdict import Table, Verdict, kept

BALLAST = pathlib.Path("/mnt/nand/ballast")
PAGE = 4096


def service_starts(table: Table, smoke: bool) -> Iterator[list[str]]:
    yield from sampled_flips(table, 1 if smoke else 25)
    yield from full_file_system(table, 8 if smoke else 1)


def sampled_flips(table: Table, each: int) -> Iterator[list[str]]:
    chosen = random.Random(0)
    kinds = []
    for name in states.ENDS:
        state = states.make(name)
        write_tree(state.words)
        places = [[path] for path in state.files if path in WORDS]
        places += [list(pair) for pair in PAIRS if name == "stale backup"]
        kinds.append(f"kelconfd itself, {name}: one or two flips")
        for paths in places * each:
            flips: list[Flip] = [(path, chosen.randrange(len(state.files[path])), chosen.randrange(8))
                                 for path in paths]
            states.put(flipped(state.files, flips))
            service = Service()
            status, served = (0, service.values()) if service.ready else (1, {})
            service.end()
            table.add(kinds[-1], *judged_first(state, flips, status, served, service.log()))
    yield kinds


def judged_first(state, flips, status, served, log) -> tuple[Verdict, str, str]:
    verdict, why = judged(state, flips, status, served, log)
    return verdict, described(flips), why


def leave_room(pages: int) -> None:
    info = os.statvfs(BALLAST.parent)
    with open(BALLAST, "wb") as ballast:
        os.posix_fallocate(ballast.fileno(), 0, max(1, info.f_bfree - pages) * info.f_bsize)


def full_file_system(table: Table, step: int) -> Iterator[list[str]]:
    starter = Starter()
    kinds = ["builder: full file system", "service: full file system"]
    for pages in range(0, 24, step):
        states.put({})
        write_tree(("small",))
        leave_room(pages)
        run_init()
        BALLAST.unlink()
        verdict, why = factory_verdict(("small",), None)
        if verdict == Verdict.NO_START:
            run_init()
            verdict, why = factory_verdict(("small",), None)
        table.add(kinds[0], verdict, f"{pages} pages free", why)
    for name in states.ENDS:
        state = states.make(name)
        write_tree(state.words)
        for pages in range(0, 24, step):
            state.restore()
            leave_room(pages)
            promises = states.copied(state.promises)
            service = Service()
            service.change(promises)
            BALLAST.unlink()
            settled = service.settle()
            promises.take(Record("settled" if settled else "ended"))
            service.end()
            status, served, log = starter.start()
            verdict, why = kept(promises, served, log)
            if not settled or status != 0:
                verdict, why = Verdict.LOST, "not stored when there was room again"
            table.add(kinds[1], verdict, f"{name}, {pages} pages free", why)
    yield kinds
    starter.close()
