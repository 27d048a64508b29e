// The running service: its threads, from the first to the last.
//
// Threads: the four request loops (GET, SET, GET_ALL, GET_GROUP), the two brokers, the write-back
// task, and the main thread, which takes the backup copies. What they share and which locks guard
// it stands with the modules (bus/service_locks.h gives the order).
#pragma once

namespace kelconf {

// Loads the live values, makes passwords plain, sets up what the requests use, binds the endpoints
// and starts the threads. Returns when all request loops have opened their endpoints. False, with
// a log line, when there is no bus context or a thread cannot be started: the process is to end.
// A failed bind of the publisher or a broker ends it with status 0.
bool startService();

// Takes a backup when one is due. To be called every kBackupPeriod seconds.
inline constexpr int kBackupPeriod = 5; // seconds
void runBackup();

// Ends the service in order: no further request is taken, the queue is stored and announced, a
// pending backup is taken, the sockets are closed. All within seconds unless the storage itself
// stalls: a row that cannot be written is not retried for longer than kPatience.
inline constexpr int kPatience = 2; // seconds
void stopService();

} // namespace kelconf
