// Judges the live database that no daemon has watched (docs/service.md has the whole table).
//
// A file that is to the byte what was sealed last (live/seal.h) is sound, and a journal beside it
// is a left-over: of a transaction whose first flush the power failure came before, or of one that
// is over and whose removal was lost. Rolling either back would do damage. So the bytes are
// compared first, with other processes kept out, and only a file that differs is handed to SQLite,
// which rolls the journal back, and then compared again.
//
// An interrupted pass keeps everything that it had committed, since clients may have been told so.
// A file that differs without such an explanation, be it by one bit of one value, is not believed.
//
// Nothing is changed but what SQLite rolls back and a left-over journal, which is removed.
// backup_mutex is held around all of it.
#pragma once

namespace kelconf {

enum class Reading {
    kComplete,
    kFaulty,
    kUnreadable // another process holds SQLite's lock, or memory is short
};
// SQLite's own check of the structure and a scan of the whole table, of any database that holds
// CONFIG. Rolls back a journal that a killed writer has left.
Reading readInFull(const char* path);

enum class LiveVerdict {
    kSound,     // reads in full and is as it was sealed
    kRecovered, // reads in full and was written after it was sealed
    kUnproven,  // reads in full, but nothing vouches for it
    kDamaged,
    kMissing,
    kStuck,     // a journal waits beside it, and the storage takes no write to settle that
    kUnreadable // nothing can be said yet
};
// Logs a digest that differs.
LiveVerdict judgeLiveDatabase();
void logVerdict(LiveVerdict verdict);

// Whether the backup's sidecar matches and SQLite finds no fault in it. Logs why not.
bool backupSound();

} // namespace kelconf
