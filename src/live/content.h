// What the live database is to hold, as memory has it, and whether a file holds that.
//
// The parameter lock and backup_mutex are held.
#pragma once

#include "live/rows.h"
#include "service/param_list.h"

#include <string>
#include <vector>

namespace kelconf {

// The stored form of a plain value of that parameter, as passwords are stored now.
std::string storedForm(const char* name, std::string_view plain);

// All rows, with their type words out of what can still be read: the live file, its backup, the
// trees. A realtime parameter has no value to store.
std::vector<LiveRow> rowsOfMemory();

// Whether each row in the database at `path` is of memory, with its value and the right kind of
// type word, and whether none is missing where `all` are wanted. A full scan: structure alone does
// not tell a value that rotted.
bool holdsMemory(const char* path, bool all);
// The live file; one that is known to be incomplete may lack rows.
bool liveFileHoldsMemory();

} // namespace kelconf
