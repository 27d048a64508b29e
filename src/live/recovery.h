// Makes the live database ready before anything is read from it (the table in docs/service.md).
//
// Main thread, before any that uses it; backup_mutex is taken around every write and every digest.
#pragma once

#include "db/sqlite_handle.h"

#include <functional>

namespace kelconf {

// Waits a second. False ends the wait: the daemon is to stop.
using Patience = std::function<bool()>;

enum class LiveOrigin {
    kNone,     // cannot be read yet
    kLiveFile, // from the live database
    kLiveCopy, // from a copy in memory of one that cannot be read in its place, or from the backup
    kBackup,   // from the backup, as the live database cannot be replaced by it
    kTrees     // from the trees alone: nothing can be read, nothing be made
};

// Where the live values are to be loaded from.
struct LiveSource {
    LiveOrigin origin = LiveOrigin::kNone;
    const char* path = nullptr; // of the database, where there is one
    Database hold{};            // keeps the live database readable until it is loaded
};

// Judges the live database (live/judge.h) and puts a good one into its place where it is damaged or
// missing, the first of these that there is: a replacement that was complete when its making was
// interrupted; the backup when that is sound; the damaged file itself when it still reads in full;
// a backup that reads in full; else a new one with an empty table. A sound backup is never passed
// over: where there is no room for it, it is served as it stands. The first damaged file is kept as
// conf.db.damaged. Then completes the file (live/completion.h). Logs each step.
//
// A storage that refuses to write is no reason to give up. What then serves is told by the result;
// that the live file must not be updated, or not alone, by setLiveFile (live/owed.h); and names
// that could not be added, or passwords not converted, by a storage fault (files/storage_fault.h).
//
// While another process keeps the file locked for more than kLockPatience, a copy of its bytes
// serves when the sidecar vouches for them, else a sound backup; without either the wait goes on.
// kNone: the patience ended.
inline constexpr int kLockPatience = 5; // seconds
LiveSource readyLiveStore(const Patience& patience);

// Removes the copy that a source may be.
void dropLiveCopy();

} // namespace kelconf
