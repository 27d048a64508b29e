// The live database as files: what stands beside it, who may read them, who has them locked.
// Failures are logged. backup_mutex is held around all but protectStoredFiles.
#pragma once

#include "base/fd.h"

#include <cstdint>

namespace kelconf {

bool filePresent(const char* path);
void removeFile(const char* path);
// In bytes, 0 when there is none.
std::uint64_t sizeOfFile(const char* path);

// Makes the names in a directory, those of files that are new, replaced or gone, as durable as the
// storage can.
bool flushDirectory(const char* path);

// Journal, write-ahead log and its index: nothing of them may outlive the database they belong to.
void removeCompanions();

// Keeps a damaged live file as evidence under another name, the first one only: a file that is
// damaged by every start must not wear the flash. The live file stays where it is. `kMove` is for
// one that is to be replaced anyway, `kCopy` for one that goes on being used.
enum class Evidence { kMove, kCopy };
void keepEvidence(Evidence way);
// Gives it up, for its room.
void dropEvidence();

// Whether the flash takes writes and has room for so many bytes.
bool roomFor(std::uint64_t bytes);

// Keeps every other process out of the live database, by the locks that SQLite itself takes on it
// (the lock bytes of https://www.sqlite.org/fileformat.html, section 1.6), without SQLite: what a
// connection does on its first read is what must not happen yet. Not while a connection of this
// process is open.
class LiveLock {
  public:
    LiveLock();
    // False: another process is in the database.
    explicit operator bool() const { return held_; }

  private:
    Fd file_;
    bool held_ = false;
};

// Files that hold passwords are for the daemon's user, and for the bus's group where there is one:
// corrects the modes of all that exist. A backup that is made later needs another call.
void protectStoredFiles();

} // namespace kelconf
