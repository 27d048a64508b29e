// Tells a service manager about the daemon's state (the sd_notify protocol: one datagram to the
// socket that NOTIFY_SOCKET names, a path or, after "@", an abstract name).
#pragma once

namespace kelconf {

// True when a manager asked for it and was told. `state` is e.g. "READY=1".
bool notifyManager(const char* state);

} // namespace kelconf
