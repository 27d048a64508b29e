// Builders: one parameter tree file into the rows of one table.
//
// Each pass parses the file, walks it into xitem_list, writes the items, frees everything and
// hands the heap back to the system. The caller initialises xitem_list (initXitemList) before
// each builder; the builder leaves it destroyed, or initialised and empty when it returns
// because the file could not be parsed. Caller's thread, no lock, one builder at a time.
//
// A tree that cannot be parsed is logged; the builders of the neutral tree then end the
// process with status 0, since without it there is nothing to serve.
#pragma once

#include "tree/xitem.h"

#include <functional>

namespace kelconf {

// Into CONFIGDEFAULT of the default database, every parameter. createDefaultConf returns the
// result of the heap trim.
int createDefaultConf();
void createDefaultExtConf();

// Into CONFIG of the live database, through addXItemInDatabase; the file is compacted after.
// `settle` comes before that, which is a transaction of its own; false from it leaves that out.
void createConf(bool (*settle)() = nullptr);
void createExtConf(bool (*settle)() = nullptr);

// Adds the items of xitem_list to CONFIG, in one transaction. Names beginning with "ipcam."
// (in any letter case) are left out; names that the table holds keep their rows.
void addXItemInDatabase();

// Hands out the items that CONFIG is to hold, those of the neutral tree first; a name may come
// twice. Initialises xitem_list itself and writes nothing. A tree that cannot be parsed is logged
// and passed over; false when it is the neutral one.
bool visitLiveItems(const std::function<void(const xitem&)>& visit);

} // namespace kelconf
