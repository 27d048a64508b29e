"""The images that known operations may leave, counted by hand."""

import unittest

from disk import Disk, choices, file_bytes
from recording import Record

write_a = Record("write", "/d/a", 1, 0, b"n" * 4096)
empty_a = Record("truncate", "/d/a", 1)
unlink_a = Record("unlink", "/d/a", 1)
flush_a = Record("fdatasync", "/d/a", 1)
create_b = Record("create", "/d/b", 2)
write_b = Record("write", "/d/b", 2, 0, b"x")
names = Record("names", "/d", 9)

# What happens to "/d/a", a flushed block of "o"; what it may leave in the ordered model, and where
# that differs in the loose one: each file with the first letter of its blocks and its size.
CASES = {
    "flushed": ([write_a, flush_a], "a=n4096"),
    "a block is old or new": ([write_a], "a=n4096 | a=o4096"),
    "or between": ([write_a, Record("write", "/d/a", 1, 0, b"z")], "a=n4096 | a=o4096 | a=z4096"),
    "a new block may be zeros": ([Record("write", "/d/a", 1, 4096, b"n" * 100)],
                                 "a=o.4196 | a=o4096 | a=on4196"),
    "emptied": ([empty_a, write_a], "a=.4096 | a=0 | a=n4096 | a=o4096"),
    "names in order, or not": ([create_b, unlink_a], "a=o4096 | a=o4096 b=0 | b=0",
                               " | a=o4096 | a=o4096 b=0 | b=0"),
    "fsync brings names in order, or not even its own": (
        [unlink_a, create_b, write_b, Record("fsync", "/d/b", 2)], "b=x1",
        " | a=o4096 | a=o4096 b=x1 | b=x1"),
    "fdatasync that needs none brings no name": ([create_b, write_a, flush_a],
                                                 "a=n4096 | a=n4096 b=0"),
    "a directory's fsync brings names, and no data": (
        [create_b, write_b, names], "a=o4096 b=.1 | a=o4096 b=x1",
        "a=o4096 b=.1 | a=o4096 b=0 | a=o4096 b=x1"),
    "a rename is one step": ([create_b, names, Record("rename", "/d/a", 2, 0, b"/d/b")],
                             "a=0 | a=o4096 b=0"),
    "sync": ([create_b, write_b, write_a, Record("sync")], "a=n4096 b=x1"),
}


def images_after(ordered, records):
    disk = Disk(ordered)
    start = [Record("create", "/d/a", 1), Record("write", "/d/a", 1, 0, b"o" * 4096), Record("sync")]
    for record in start + records:
        disk.apply(record)
    found = set()
    for image, _ in disk.images(1000):
        texts = []
        for path, size, blocks in image:
            letters = file_bytes(size, blocks)[::4096].decode().replace("\0", ".")
            texts.append(f"{path[3:]}={letters}{size}")
        found.add(" ".join(texts))
    return " | ".join(sorted(found))


class DiskTest(unittest.TestCase):
    def test_images(self):
        for name, (records, ordered, *loose) in CASES.items():
            with self.subTest(name):
                self.assertEqual(images_after(True, records), ordered)
                self.assertEqual(images_after(False, records), loose[0] if loose else ordered)

    def test_chooses_all_or_a_selection(self):
        self.assertEqual([len(set(choices(*case))) for case in ((0, 1), (4, 16), (30, 62))], [1, 16, 62])


unittest.main()
