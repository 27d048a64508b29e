"""The fault campaign (scripts/faults --help). Inside a device root with a small flash.
Exit status: 0 without a loss, 1 with any, 2 for wrong usage."""

import argparse
import sys
import time
from functools import partial

from calls import builder_calls, service_calls
from flips import builder_flips, large_flips, service_flips
from real import service_starts
from verdict import HEADER, Table

SCENES = {"builder-calls": builder_calls, "builder-flips": builder_flips,
          "service-calls": partial(service_calls, "stale backup"),
          "first-start-calls": partial(service_calls, "first start"),
          "journal-calls": partial(service_calls, "hot journal"),
          "unsealed-calls": partial(service_calls, "cut before the seal"),
          "backed-up-flips": partial(service_flips, "backed up"),
          "service-flips": partial(service_flips, "stale backup"),
          "journal-flips": partial(service_flips, "hot journal"),
          "unsealed-flips": partial(service_flips, "cut before the seal"),
          "large-flips": large_flips,
          "service-starts": service_starts}


def main() -> int:
    parser = argparse.ArgumentParser(prog="faults")
    parser.add_argument("--smoke", action="store_true")
    parser.add_argument("scenes", nargs="*")
    options = parser.parse_args()
    if unknown := set(options.scenes) - set(SCENES):
        parser.error(f"unknown: {' '.join(unknown)}")
    table = Table()
    print(HEADER, flush=True)
    for name in options.scenes or SCENES:
        began = time.monotonic()
        for kinds in SCENES[name](table, options.smoke):
            table.show(kinds)
        print(f"{name}: {time.monotonic() - began:.0f} s", file=sys.stderr, flush=True)
    print(f"\n{table.total()} faults, {table.bad()} of them with a loss.")
    return 1 if table.bad() else 0


sys.exit(main())
