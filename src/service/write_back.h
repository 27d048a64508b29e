// Stores queued changes in the live database, seals it and announces what changed.
//
// A pass runs with the parameter lock held by its caller, and holds backup_mutex from beginning to
// end. It takes every record out of the queue; none is ever put back. The store (service/storage.h)
// gets them in one transaction, of a long queue 1,000 at a time, so that a request of several names
// is stored wholly or not at all when power fails. A row that cannot be written after all attempts
// is announced like the others, since the live value has changed.
#pragma once

#include <cstdint>

namespace kelconf {

// Body of the write-back task: waits for raiseFileEvent (service/item_queue.h), runs a pass,
// waits again. Returns after endFileEvents, once no raised signal is left.
void saveFileTask();

// One pass in the calling thread, under the parameter lock.
void saveFileDirect();

// One pass; the caller holds the parameter lock. Changes go out as one event as long as their
// sizes (three lengths and 100 for each, bytes) add up to at most 1000; every later change of the
// pass goes out at once, on its own. The sidecar is rewritten and a backup is due after every
// pass, also one that stored nothing.
void writeParamToFile();

// 1 when a change of that parameter may show its value in the log: no "passwd" in the name.
std::int32_t checkParamLoggable(const char* name);

// Cuts the text at its first line feed.
void removeBreak(char* text);

} // namespace kelconf
