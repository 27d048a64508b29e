// The directory of the bus's sockets, and the claim to be the only service that uses it.
#pragma once

#include "files/fd.h"

namespace kelconf {

// Makes endpoints::kDirectory, or takes over an existing one that is a real directory of the
// daemon's user, and narrows its mode: nobody but the user may write to it, nobody but the user
// and the bus's group may enter it. Logs why not when false.
bool readyBusDirectory();

// Locks the directory against a second service; held until the descriptor is closed or the
// process ends, however it ends. Empty, with the reason logged, while another service runs.
Fd claimBus();

} // namespace kelconf
