// The threads of the running service.
#pragma once

namespace kelconf {

// Starts the request loops, the brokers, the write-back task and the upkeep (a pending backup
// every five seconds, changes whose storing failed). Everything they use must be there. Returns
// when the request endpoints are open. False when a thread cannot be started (logged).
bool startServiceThreads();

// Takes no further request, stores and announces what is queued, takes a pending backup, closes
// the sockets and the bus context. Retries of failing updates end after two seconds.
void stopServiceThreads();

} // namespace kelconf
