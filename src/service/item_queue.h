// From the SET handling to the write-back: the queue of changes and the signal that wakes the
// write-back task.
//
// The queue is qLibc's, which locks each operation itself: the SET thread puts records in while
// a write-back pass in another thread takes them out. First in, first out, without a bound.
//
// The signal is a flag with a mutex and a condition variable. The flag is tested before waiting
// and cleared before the pass: a signal raised while a pass runs leads to exactly one further
// pass, any number of them to that one. file_mutex is held around the flag only, never together
// with another lock.
#pragma once

#include "qlibc/use_qlibc.h"

#include <pthread.h>

#include <cstddef>
#include <cstdint>

namespace kelconf {

// One change of an ordinary parameter. Its texts (text/text.h) belong to the record: to the
// queue from the moment it is queued, then to whoever takes it out.
struct QueueItem {
    char* name;
    char* value;      // the new value
    char* prev_value; // the value before this change
};

// Makes the queue; once, before the first SET is applied and before the write-back task starts.
qqueue_t* initItemQueue();

// Queues a copy of the record. False when memory is short: the texts are still the caller's.
bool item_queue_enqueue(const QueueItem* item);
// The oldest record, to be released with releaseQueueItem; null when the queue is empty.
QueueItem* item_queue_dequeue();
std::size_t item_queue_size();

// Releases the record and its three texts.
void releaseQueueItem(QueueItem* item);

extern pthread_mutex_t file_mutex;
extern pthread_cond_t file_cond;
extern std::uint8_t process_file_event; // 1: changes were queued since the task last looked

// Says that changes were queued.
void raiseFileEvent();

// Waits until changes are queued (true) or the task is to end (false), and clears the flag.
// Once ended, it says true while a raised flag is left, so that nothing raised before is lost.
bool awaitFileEvent();

// Ends the wait of the write-back task for good; resumeFileEvents undoes it (tests, restarts).
void endFileEvents();
void resumeFileEvents();

} // namespace kelconf
