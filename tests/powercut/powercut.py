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


def images(records: list[Record], most: int, model: str, factory: bool
           ) -> Iterator[tuple[Image, Promises, int, list[Change], bool]]:
    """Each image at each position where something is promised; `first`: it lacks nothing.

    The live files and the factory ones are disks of their own: neither's recovery asks for the
    other.
    """
    disk, promises = Disk(model == "ordered"), Promises()
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


def judge_model(options: argparse.Namespace, scene: str, model: str, records: list[Record],
                judge: Judge) -> bool:
    """Prints the first failure of each kind, and the scene's line of the table."""
    judged: set[Image] = set()
    ways = 0
    failed: dict[str, set[Image]] = defaultdict(set)
    for factory in (True, False):
        every = {one[0] for one in images(records, options.most, model, factory)}
        ways += len(every)
        step = 1 + len(every) // options.images
        for image, promises, at, lost, first in images(records, options.most, model, factory):
            # Spread evenly; and what the end of the process alone leaves.
            if hash(image) % step and not (first and records[at - 1].operation not in OPERATIONS):
                continue
            judged.add(image)
            for kind, words in judge.failures(image, promises, factory).items():
                if not failed[kind]:
                    print(f"  {scene}, {model}: {kind}: {words}\n    after #{at} {records[at - 1]}, "
                          f"lost: {', '.join(map(str, lost)) or 'nothing'}")
                    if options.keep:
                        put_image(image)
                        shutil.copytree("/mnt", pathlib.Path("/tmp/kept", scene, model, kind))
                failed[kind].add(image)
    print(f"{scene:28} {model:8} {len(judged):7} of {ways:7}", *(
        f" {kind} {len(which)}" for kind, which in failed.items()), flush=True)
    return not failed


def run(options: argparse.Namespace, scene: str, script: str) -> bool:
    """False with any failure, or when the scene could not be played to its end."""
    broken = play(script)
    records = recording.read()
    disk = Disk(ordered=True)
    for at, record in enumerate(records, 1):
        disk.apply(record)
        if options.trace:
            print(f"  #{at} {record}")
    # A call that the recorder does not know would make every image a fiction.
    if next(disk.images(1))[0] != image_of(stored_files()):
        sys.exit("the recorded operations do not lead to the files that are there")
    if broken:
        print(f"  {scene}: ENDS at {broken}")
    judge = Judge()
    good = [judge_model(options, scene, model, records, judge) for model in options.model]
    judge.close()
    return all(good) and not broken


def main() -> int:
    parser = argparse.ArgumentParser(prog="powercut")
    parser.add_argument("--scene", action="append", choices=scenes())
    parser.add_argument("--images", type=int, default=5000)  # of each scene and model
    parser.add_argument("--model", action="append", choices=["ordered", "loose"])
    parser.add_argument("--short", action="store_true")
    parser.add_argument("--keep", action="store_true")
    parser.add_argument("--trace", action="store_true")
    options = parser.parse_args()
    options.model = options.model or ["ordered", "loose"]
    options.most = 48  # ways at each position (ordered: and prefix)
    if options.short:
        options.most, options.images = 12, 50
    chosen = {name: script for name, script in scenes().items()
              if not options.scene or name in options.scene}
    return 0 if all([run(options, *scene) for scene in chosen.items()]) else 1


sys.exit(main())
