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

# What happens to "/d/a", a flushed block of "o", and what it may leave: each file with the first
# letter of its blocks and its size.
CASES = {
    "flushed": ([write_a, flush_a], "a=n4096"),
    "a block is old or new": ([write_a], "a=n4096 | a=o4096"),
    "or between": ([write_a, Record("write", "/d/a", 1, 0, b"z")], "a=n4096 | a=o4096 | a=z4096"),
    "a new block may be zeros": ([Record("write", "/d/a", 1, 4096, b"n" * 100)],
                                 "a=o.4196 | a=o4096 | a=on4196"),
    "emptied": ([empty_a, write_a], "a=.4096 | a=0 | a=n4096 | a=o4096"),
    "a name comes or not": ([create_b, unlink_a], " | a=o4096 | a=o4096 b=0 | b=0"),
    "fsync brings no name": ([unlink_a, create_b, write_b, Record("fsync", "/d/b", 2)],
                             " | a=o4096 | a=o4096 b=x1 | b=x1"),
    "fdatasync brings one file's data and size": (
        [create_b, write_a, write_b, Record("fdatasync", "/d/b", 2), names],
        "a=n4096 b=x1 | a=o4096 b=x1"),
    "a directory's fsync brings its names alone": (
        [create_b, write_b, Record("create", "/e/c", 3), names],
        "a=o4096 b=.1 | a=o4096 b=.1 c=0 | a=o4096 b=0 | a=o4096 b=0 c=0 | a=o4096 b=x1 | a=o4096 b=x1 c=0"),
    "a rename is one step": ([create_b, names, Record("rename", "/d/a", 2, 0, b"/d/b")],
                             "a=0 | a=o4096 b=0"),
    "sync": ([create_b, write_b, write_a, Record("sync")], "a=n4096 b=x1"),
}


def files_of(image):
    texts = []
    for path, size, blocks in image:
        letters = file_bytes(size, blocks)[::4096].decode().replace("\0", ".")
        texts.append(f"{path[3:]}={letters}{size}")
    return " ".join(texts)


def images_after(records, most=1000):
    disk = Disk()
    start = [Record("create", "/d/a", 1), Record("write", "/d/a", 1, 0, b"o" * 4096)]
    for record in start + [Record("sync")] + records:
        disk.apply(record)
    return [files_of(image) for image, _ in disk.images(most)]


class DiskTest(unittest.TestCase):
    def test_images(self):
        for name, (records, images) in CASES.items():
            with self.subTest(name):
                self.assertEqual(" | ".join(sorted(set(images_after(records)))), images)

    def test_names_in_order_come_first_nothing_last(self):
        many = [Record("create", f"/d/{i}", 10 + i) for i in range(10, 14)]
        created = ["".join(f"{i}=0 " for i in range(10, end)) + "a=o4096" for end in range(10, 15)]
        self.assertEqual(images_after(many, 2), created[::-1] + [created[-1], created[0]])

    def test_chooses_all_or_a_selection(self):
        chosen = [len(set(choices(*case))) for case in ((0, 1), (4, 16), (30, 62))]
        self.assertEqual(chosen, [1, 16, 62])


unittest.main()
