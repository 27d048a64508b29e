// Fills the live parameter list at start. Main thread, before the service's threads.
#pragma once

#include "live/recovery.h"

namespace kelconf {

// Loads the values from the source, takes the names that the trees have beyond them (where the
// storage could not take them), and makes the passwords plain. Takes backup_mutex while it loads.
void loadLiveValues(LiveSource source);

// Appends every row of the live database to ParamList (initialised before) and sorts it. A failure
// is logged; the rows read before it stay.
void loadSQLDB();

} // namespace kelconf
