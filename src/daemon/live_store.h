// Makes the live database ready before anything is read from it (docs/service.md).
//
// Two things are asked about the file that no daemon has watched:
//   - SQLite's own check of its structure, and a scan of the whole table;
//   - its seal (files/live_seal.h): whether it is to the byte what was sealed last, and where not,
//     whether transactions committed after the sealing explain that.
// An interrupted pass keeps everything that it had committed, since clients were told so. A file
// that differs without such an explanation, be it by one bit of one value, is not believed.
//
// A journal beside the file is part of it: it is rolled back before the digest is compared, and
// goes when the file is replaced.
//
// Main thread, before any other; backup_mutex is held around every write and every digest.
#pragma once

#include <functional>

namespace kelconf {

enum class LiveVerdict {
    kSound,     // reads in full and is as it was sealed
    kRecovered, // reads in full and was written after it was sealed
    kDamaged,
    kMissing,
    kUnreadable // nothing can be said yet: another process holds SQLite's lock, or memory is short
};

// Looks, and changes nothing but a journal to be rolled back. Logs a digest that differs.
LiveVerdict judgeLiveDatabase();

// Waits a second. False ends the wait: the daemon is to stop.
using Patience = std::function<bool()>;

// Where the live values are to be loaded from.
struct LiveSource {
    bool stopped = false;       // nowhere: the patience ended
    const char* copy = nullptr; // a copy, while the live database cannot be used; null: from itself
    bool temporary = false;     // the copy is to be removed after loading (dropCopy)
};

// Judges the file and puts a good one into its place where it is damaged or missing: the backup
// when that is sound (its sidecar matches and SQLite finds no fault in the copy), else a new one
// with an empty table. The first damaged file is kept as conf.db.damaged. A replacement is complete
// and on flash before it takes the name. Then adds the names that the trees have and the table
// lacks, and seals the file. Logs each step. A tree that does not parse ends the process with
// status 0, as createConf says.
//
// A storage that refuses to write is no reason to give up. While another process keeps the file
// locked for more than kLockPatience, a copy of its bytes serves when the sidecar vouches for
// them, else a sound backup; what clients set is stored as soon as the lock is gone.
inline constexpr int kLockPatience = 5; // seconds
LiveSource readyLiveStore(const Patience& patience);

// Removes a temporary copy.
void dropCopy(const LiveSource& source);

// Files that hold passwords are for the daemon's user, and for the bus's group where there is one:
// corrects the modes of all that exist. A backup that is made later needs another call.
void protectStoredFiles();

} // namespace kelconf
