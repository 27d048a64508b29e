// The live database as files: what stands beside it, how a new one takes its place, who may read
// them. Failures are logged. backup_mutex is held around all but protectStoredFiles.
#pragma once

#include <cstdint>

namespace kelconf {

// A new file is made under this name, and takes the live one's when it is complete.
inline constexpr const char* kLiveReplacement = "/mnt/nand/conf/conf.db.new";

bool filePresent(const char* path);
void removeFile(const char* path);

// Removes the replacement and what SQLite has left beside it.
void dropReplacement();

// Keeps a damaged live file as evidence under another name, the first one only: a file that is
// damaged by every start must not wear the flash. dropEvidence gives it up, for its room.
void keepEvidence();
void dropEvidence();

// Removes the live file with its companions: a journal without its database would be rolled into
// the next one of that name. False when the file is still there.
bool removeLiveFile();

// Puts the replacement into the live file's place in one step, flushed before and after. False when
// it could not be; it then has gone.
bool putReplacementInPlace();

// Whether the flash takes writes and has room for so many bytes.
bool roomFor(std::uint64_t bytes);
std::uint64_t sizeOfFile(const char* path);

// Files that hold passwords are for the daemon's user, and for the bus's group where there is one:
// corrects the modes of all that exist. A backup that is made later needs another call.
void protectStoredFiles();

} // namespace kelconf
