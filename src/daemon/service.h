// The running service: its threads, from the first to the last.
//
// Threads: the four request loops (GET, SET, GET_ALL, GET_GROUP), the two brokers, the write-back
// task, the upkeep and, where the service manager watches, the one that feeds its watchdog. What
// they share and which locks guard it stands with the modules (bus/service_locks.h gives the
// order).
#pragma once

#include "live/recovery.h"

namespace kelconf {

// Loads the live values, makes passwords plain, sets up what the requests use, binds the endpoints
// and starts the threads. Returns when all loops and brokers have opened their endpoints. False,
// with a log line, when there is no bus context or a thread cannot be started: the process is to
// end. A failed bind of the publisher or a broker ends it with status 0.
bool startService(LiveSource source);

// The upkeep of the live store (tendLiveStore of live/live.h) runs this often.
inline constexpr int kUpkeepPeriod = 5; // seconds

// Ends the service in order: no further request is taken, the queue is stored and announced, a
// pending backup is taken, the sockets are closed. All within seconds unless the storage itself
// stalls: rows that cannot be written are not retried for longer than kStopPatience.
inline constexpr int kStopPatience = 2; // seconds
void stopService();

} // namespace kelconf
