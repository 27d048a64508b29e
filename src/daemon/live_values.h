// Fills the live parameter list at start.
#pragma once

#include "daemon/live_store.h"

namespace kelconf {

// Loads the values from the source, takes the names that the trees have beyond them (where the
// storage could not take them), and makes the passwords plain. Main thread, before the service's
// threads; takes backup_mutex while it loads.
void loadLiveValues(LiveSource source);

} // namespace kelconf
