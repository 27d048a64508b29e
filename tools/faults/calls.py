"""Kills and errors at every storage call, of the builder and of the service."""

import errno
import itertools
import os
import signal
import subprocess
from collections.abc import Iterator

import states
from flips import FACTORY, factory_verdict, flipped, run_init
from judge import SWITCH, Starter, write_tree
from recording import Record
from service import HEALED, SHIM, TRACE, Service
from states import State
from verdict import Table, Verdict, kept

SPACE = ("create", "write", "truncate")
CHANGING = (*SPACE, "openw", "remove")
KEPT = (*SPACE, "remove", "mode", "sync")
OPENINGS = ("open", "create", "openw")


def calls_of_trace() -> list[tuple[int, str]]:
    """Those that differ: of calls of one kind for one file between two openings of any, where they
    change nothing, the first and the last."""
    chosen, openings = {}, 0
    for line in TRACE.read_text().splitlines():
        number, kind, path = line.split()
        openings += kind in OPENINGS
        key = openings, kind, path
        unlike = (*key, number if kind in KEPT or key + ("first",) not in chosen else "last")
        chosen[(*key, "first")] = chosen.get((*key, "first"), (int(number), kind))
        chosen[unlike] = (int(number), kind)
    return sorted(set(chosen.values()))


def plans(calls: list[tuple[int, str]], step: int) -> Iterator[tuple[str, str, str]]:
    """A kind of fault, a plan of the fault library (fault_shim.cpp), and what it means. A kill after
    a call that changes nothing leaves what the one before left."""
    for kind, action, error, touched in (
            ("kill after a storage call", "kill-after {} 0", 0, KEPT),
            ("EIO once", "fail {} {}", errno.EIO, None),
            ("ENOSPC once", "fail {} {}", errno.ENOSPC, CHANGING),
            ("half of the bytes, then ENOSPC", "short-full {} {}", errno.ENOSPC, ("write",)),
            ("full disk from a call on", "fail-on {} {} space", errno.ENOSPC, SPACE),
            ("read-only disk from a call on", "fail-on {} {} modify", errno.EROFS, CHANGING),
            ("EIO for changes from a call on", "fail-on {} {} modify", errno.EIO, CHANGING)):
        there = [one for one in calls if touched is None or one[1] in touched]
        for number, call in there[::step]:
            yield kind, action.format(number, error), f"{action.format(number, error)} ({call})"


def builder_calls(table: Table, smoke: bool) -> Iterator[list[str]]:
    words = ("small",)
    write_tree(words)
    states.put({})
    run_init()
    files = {str(path): path.read_bytes() for path in (FACTORY, FACTORY.with_name("default.db.md5"))}
    right = files[str(FACTORY)]
    kinds: list[str] = []
    for state, start in (("nothing there", {}), ("damaged", flipped(files, [(str(FACTORY), 5000, 0)]))):
        states.put(start)
        calls = under("", trace=True)
        for kind, plan, what in plans(calls, 23 if smoke else 1):
            kind = f"builder, {state}: {kind}"
            if kind not in kinds:
                kinds.append(kind)
            states.put(start)
            under(plan)
            verdict, why = factory_verdict(words, right)
            if verdict == Verdict.NO_START:  # not sealed, as it should be: the next run repairs it
                run_init()
                verdict, why = factory_verdict(words, None)
            table.add(kind, verdict, what, why)
    yield kinds


def under(plan: str, trace: bool = False) -> list[tuple[int, str]]:
    """One run of kelconf-init with that fault."""
    settings = {"LD_PRELOAD": str(SHIM)} | ({"KELCONF_FAULT": plan} if plan else {})
    settings |= {"KELCONF_FAULT_TRACE": str(TRACE)} if trace else {}
    subprocess.run(["kelconf-init"], env=os.environ | settings, stderr=subprocess.DEVNULL)
    return calls_of_trace() if trace else []


def service_calls(name: str, table: Table, smoke: bool) -> Iterator[list[str]]:
    """From that state."""
    starter = Starter()
    state = states.fresh() if name == "first start" else states.make(name)
    write_tree(state.words)
    state.restore()
    service = Service(trace=True)
    service.change(states.copied(state.promises))
    if not service.settle():
        raise RuntimeError(f"{name}: does not settle without a fault")
    service.end(signal.SIGTERM)
    all_plans = plans(calls_of_trace(), 97 if smoke else 1)
    for kind, same in itertools.groupby(all_plans, key=lambda one: f"service, {name}: {one[0]}"):
        for _, plan, what in same:
            table.add(kind, *disturbed(starter, state, plan, what))
        yield [kind]
    starter.close()


def disturbed(starter: Starter, state: State, plan: str, what: str) -> tuple[Verdict, str, str]:
    """A killed service leaves what it answered. One whose storage failed is asked while it runs, has
    the storage back, and is killed when it has stored what it kept in mind."""
    state.restore()
    promises = states.copied(state.promises)
    service = Service(plan)
    if service.ready:
        service.change(promises)
        if not plan.startswith("kill"):
            # The switch says how passwords are stored: not scrambled until the storage took that.
            served = service.values()
            served[SWITCH] = served.get(SWITCH, "missing").replace("0", "1")
            verdict, why = kept(promises, served)
            if verdict != Verdict.SURVIVED:
                service.end()
                return verdict, what, f"while it runs: {why}"
        HEALED.touch()
        if service.settle():
            promises.take(Record("settled"))
            if plan.startswith("kill"):
                service.end(signal.SIGTERM)
        elif service.process.poll() is None:
            service.end()
            return Verdict.LOST, what, f"not stored when the storage was back: {service.log()[-800:]}"
    if service.process.poll() is None:
        service.end()
    promises.take(Record("ended"))
    status, served, log = starter.start()
    if status != 0:
        return Verdict.NO_START, what, f"wait status {status}"
    verdict, why = kept(promises, served, log)
    return verdict, what, why
