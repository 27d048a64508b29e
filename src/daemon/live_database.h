// Readies the live database at start (docs/service.md tells the whole story).
//
// Runs before the threads, with backup_mutex held.
#pragma once

namespace kelconf {

enum class LiveDatabase {
    kKept,     // it was sound
    kRestored, // replaced by the backup
    kMade,     // new, with an empty table
    kUnusable  // cannot be read or made now (locked, disk full): left as it is
};

// Makes sure of a sound file with table CONFIG where that is possible. A damaged file is kept aside
// as conf.db.damaged. Each decision is logged.
LiveDatabase readyLiveDatabase();

// Adds the names that the trees have and the table lacks. A neutral tree that cannot be parsed ends
// the process with status 0.
void addNewNames();

} // namespace kelconf
