// Judges the live database that no daemon has watched (docs/service.md).
//
// Two things are asked:
//   - SQLite's own check of its structure, and a scan of the whole table;
//   - its seal (files/live_seal.h): whether it is to the byte what was sealed last, and where not,
//     whether transactions committed after the sealing explain that.
// An interrupted pass keeps everything that it had committed, since clients were told so. A file
// that differs without such an explanation, be it by one bit of one value, is not believed.
//
// A journal beside the file is part of it: it is rolled back before the digest is compared. Nothing
// else is changed. backup_mutex is held around all of it.
#pragma once

namespace kelconf {

enum class Reading {
    kComplete,
    kFaulty,
    kUnreadable // another process holds SQLite's lock, or memory is short
};
// Of any database that holds CONFIG.
Reading readInFull(const char* path);

enum class LiveVerdict {
    kSound,     // reads in full and is as it was sealed
    kRecovered, // reads in full and was written after it was sealed
    kDamaged,
    kMissing,
    kUnreadable // nothing can be said yet
};
// Logs a digest that differs.
LiveVerdict judgeLiveDatabase();
void logVerdict(LiveVerdict verdict);

// Whether the backup's sidecar matches and SQLite finds no fault in it.
bool backupSound();

} // namespace kelconf
