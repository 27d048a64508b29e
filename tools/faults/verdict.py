"""What became of a fault, and the table of it."""

import enum
from collections import Counter

from judge import Promises, Values


class Verdict(enum.Enum):
    """In the order of the table's columns."""

    SURVIVED = "as it was"  # every acknowledged value is served
    BACKUP = "from the backup"  # the live file was harmed: the values as of the backup
    DEFAULTS = "from defaults"  # live file and backup were harmed; or a factory database, built anew
    UNPROVEN = "unproven, with a record"  # nothing vouches for any file: served as it reads
    LOST = "acknowledged values lost"
    WRONG = "wrong values served as sound"
    NO_START = "no start"


BAD = (Verdict.LOST, Verdict.WRONG, Verdict.NO_START)


class Table:
    """Counts the verdicts by kind of fault, and shows the first bad ones of each."""

    SHOWN = 3

    def __init__(self) -> None:
        self.kinds: dict[str, Counter] = {}

    def add(self, kind: str, verdict: Verdict, fault: str, why: str = "") -> None:
        counts = self.kinds.setdefault(kind, Counter())
        counts[verdict] += 1
        if verdict in BAD and counts[verdict] <= self.SHOWN:
            print(f"  {verdict.value}: {kind}: {fault}: {why}", flush=True)

    def show(self, kinds: list[str]) -> None:
        for kind in kinds:
            counts = self.kinds[kind]
            cells = [counts.total(), *(counts[verdict] for verdict in Verdict)]
            print(f"| {kind} |", " | ".join(map(str, cells)), "|", flush=True)

    def total(self) -> int:
        return sum(counts.total() for counts in self.kinds.values())

    def bad(self) -> int:
        return sum(counts[verdict] for counts in self.kinds.values() for verdict in BAD)


HEADER = (f"| Kind of fault | tried | {' | '.join(verdict.value for verdict in Verdict)} |\n"
          f"|---|{'---:|' * (1 + len(Verdict))}")


def kept(promises: Promises, served: Values, log: str = "") -> tuple[Verdict, str]:
    """Where no file was harmed: every promise holds."""
    failures = promises.failures(served)
    if not failures:
        return Verdict.SURVIVED, ""
    wrong = "foreign" in failures or any(
        served.get(name) not in [one[0] for one in sent] for name, sent in promises.sent.items())
    return Verdict.WRONG if wrong else Verdict.LOST, f"{failures} {log}"
