// What the live database lacks of the values that memory holds, and whether it can be given them.
//
// Three kinds of values stand in memory and not in the file: changes on their way (the item queue),
// changes whose storing failed, and changes that are never to be stored. Whoever writes rows from
// memory asks valueToStore for each.
//
// The lists belong to the parameter lock. The state and anyUnstored may be read without it.
#pragma once

#include "service/storage.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf {

enum class LiveFile : std::uint8_t {
    kWhole,
    kIncomplete, // takes changes, but lacks rows of the trees: a new file is to be made of memory
    kLost,       // must not be written, as its values are not the live ones: likewise
    kUnread      // takes changes, but was locked when memory was filled from its backup: what it
                 // holds may be newer than memory, and must not be made anew of it
};
// Set by the start, then under backup_mutex.
LiveFile liveFile();
void setLiveFile(LiveFile state);

// Changes whose storing failed, with the plain value that was to be stored, which is not always the
// live one any more. noteStored takes a name out again: the file now has that value of it.
void noteUnstored(const std::string& name, const std::string& value);
void noteStored(const std::string& name, const std::string& value);
bool anyUnstored();
std::vector<StoredChange> unstoredChanges();

// A change that is not to be stored: `stored` is the plain value that the file keeps (of several
// changes the first counts). The next change that is to be stored ends it.
void noteMemoryOnly(const std::string& name, const std::string& stored);
void endMemoryOnly(const std::string& name);

// The plain value that the file is to hold of a parameter with that live value.
std::string_view valueToStore(const char* name, const char* live);

// The file holds everything that it is to hold.
void noteAllStored();

} // namespace kelconf
