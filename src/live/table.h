// The service's changes reach the live database: a pass's rows, what earlier passes could not
// store, and the seal after them. One transaction at a time, each on a file that is sealed.
//
// The parameter lock and backup_mutex are held by the callers of all.
#pragma once

#include "service/storage.h"

#include <vector>

namespace kelconf {

// For Storage (service/storage.h). Several changes go into one transaction. When the storage
// refuses it, they go row by row, each sealed before the next: the first row that is refused gets
// its ten attempts, the others one each until one is taken, so that a storage that has refused for
// ten seconds is not asked that long for every row. What is refused is noted (live/owed.h).
void storeChanges(const std::vector<StoredChange>& changes, bool& refused);

// Seals what was stored. A file that is lost is made anew from memory first.
void sealChanges();

// Tries once more to store what the passes could not. Does nothing, at no cost, when there is none.
void storeFailedChanges();

} // namespace kelconf
