// SIGTERM and SIGINT: who waits for them, and what a start does when one arrives.
#pragma once

#include <chrono>

namespace kelconf {

// Blocks both signals for all threads to come. Before any thread.
void holdStopSignals();

// Starts the thread that takes them. From here to endOfStart a signal also ends the retries of
// refused writes (db/update_retries.h), so that a start that waits for the storage ends soon.
// False when the thread cannot be started.
bool watchStopSignals();

// The number of the signal that has come, or comes within that time; else 0.
int stopSignalWithin(std::chrono::milliseconds time);
// Waits for it without end.
int awaitStopSignal();

// The signal that has come during the start, else 0.
int endOfStart();

} // namespace kelconf
