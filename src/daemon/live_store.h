// Makes the live database ready before anything is read from it (docs/service.md).
//
// Main thread, before any that uses it; backup_mutex is taken around every write and every digest.
#pragma once

#include "db/sqlite_handle.h"

#include <functional>

namespace kelconf {

// Waits a second. False ends the wait: the daemon is to stop.
using Patience = std::function<bool()>;

enum class LiveOrigin {
    kStopped,  // nowhere: the patience ended
    kLiveFile, // from the live database
    kLocked,   // from a copy, while another process keeps the live database locked
    kBackup,   // from the backup, as the live database cannot be replaced by it
    kTrees     // from the trees alone: nothing can be read, nothing be made
};

// Where the live values are to be loaded from.
struct LiveSource {
    LiveOrigin origin = LiveOrigin::kStopped;
    const char* path = nullptr; // of the database, where there is one
    bool temporary = false;     // the file at `path` is to be removed after loading
    Database hold{};            // keeps the live database readable until it is loaded
};

// Judges the live database (daemon/live_check.h) and puts a good one into its place where it is
// damaged or missing: the backup when that is sound, else a new one with an empty table. A sound
// backup is never passed over: where there is no room for it, it is served as it stands. The first
// damaged file is kept as conf.db.damaged. Then adds the names that the trees have and the table
// lacks, and seals the file. Logs each step. A neutral tree that does not parse ends the process
// with status 0, as createConf says.
//
// A storage that refuses to write is no reason to give up. What then serves is told by the result;
// that the live file must not be updated, or not alone, by setLiveFile (service/unstored.h); and
// names that could not be added, or passwords not converted, by a storage fault
// (files/storage_fault.h).
//
// While another process keeps the file locked for more than kLockPatience, a copy of its bytes
// serves when the sidecar vouches for them, else a sound backup; without either the wait goes on.
inline constexpr int kLockPatience = 5; // seconds
LiveSource readyLiveStore(const Patience& patience);

} // namespace kelconf
