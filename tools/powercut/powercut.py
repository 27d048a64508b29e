"""Plays scenes against kelconfd and kelconf-init, builds what a power cut at each of their
operations may leave, and judges a start on it (scripts/powercut --help). Inside a device root.
Exit status: 0 without failures, 1 with, 2 for wrong usage."""

import argparse
import pathlib
import shutil
import sys
from collections import defaultdict
from collections.abc import Iterator

import recording
from disk import Change, Disk, Image, image_of
from judge import FACTORY, Judge, Promises, put_image, stored_files
from scenes import play, scenes
from recording import Record

OPERATIONS = ("create", "unlink", "rename", "link", "write", "truncate", "fsync", "fdatasync")


def images(records: list[Record], most: int, factory: bool
           ) -> Iterator[tuple[Image, Promises, int, list[Change], bool]]:
    """Each image at each position where something is promised; `first`: it lacks nothing.

    The live files and the factory ones are disks of their own: neither's recovery asks for the
    other.
    """
    disk, promises = Disk(), Promises()
    for at, record in enumerate(records, 1):
        promises.take(record)
        if record.operation in OPERATIONS and record.path.startswith(str(FACTORY)) != factory:
            disk.at += 1
            continue
        disk.apply(record)
        if promises.quiet or record.operation in ("sent", "tree"):
            continue
        for i, (image, lost) in enumerate(disk.images(most)):
            yield image, promises, at, lost, i == 0


def judge(options: argparse.Namespace, scene: str, records: list[Record]) -> bool:
    """Prints the first failure of each kind, and the scene's line of the table."""
    judge, judged, ways = Judge(), set(), 0
    failed: dict[str, set[Image]] = defaultdict(set)
    for factory in (True, False):
        every = {one[0] for one in images(records, options.most, factory)}
        ways += len(every)
        step = 1 + len(every) // options.images
        for image, promises, at, lost, first in images(records, options.most, factory):
            # Spread evenly; and what the end of the process alone leaves.
            if hash(image) % step and not (first and records[at - 1].operation not in OPERATIONS):
                continue
            judged.add(image)
            for kind, words in judge.failures(image, promises, factory).items():
                if not failed[kind]:
                    print(f"  {scene}: {kind}: {words}\n    after #{at} {records[at - 1]}, "
                          f"lost: {', '.join(map(str, lost)) or 'nothing'}")
                    if options.keep:
                        put_image(image)
                        shutil.copytree("/mnt", pathlib.Path("/tmp/kept", scene, kind))
                failed[kind].add(image)
    judge.starter.close()
    print(f"{scene:28} {len(judged):7} of {ways:7}", *(
        f" {kind} {len(which)}" for kind, which in failed.items()), flush=True)
    return not failed


def run(options: argparse.Namespace, scene: str, script: str) -> bool:
    """False with any failure, or when the scene could not be played to its end."""
    broken = play(script)
    records = recording.read()
    disk = Disk()
    for at, record in enumerate(records, 1):
        disk.apply(record)
        if options.trace:
            print(f"  #{at} {record}")
    # A call that the recorder does not know would make every image a fiction.
    if next(disk.images(1))[0] != image_of(stored_files()):
        sys.exit("the recorded operations do not lead to the files that are there")
    if broken:
        print(f"  {scene}: ENDS at {broken}")
    return judge(options, scene, records) and not broken


def main() -> int:
    parser = argparse.ArgumentParser(prog="powercut")
    parser.add_argument("--scene", action="append", choices=scenes())
    parser.add_argument("--images", type=int, default=5000)  # of each scene
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--keep", action="store_true")
    parser.add_argument("--trace", action="store_true")
    options = parser.parse_args()
    options.most = 48  # ways at each position and prefix
    if options.short:
        options.most, options.images = 12, 100
    chosen = {name: script for name, script in scenes().items()
              if not options.scene or name in options.scene}
    return 0 if all([run(options, *scene) for scene in chosen.items()]) else 1


sys.exit(main())
