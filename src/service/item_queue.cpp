#include "service/item_queue.h"

#include "text/text.h"

#include <cstdlib>

namespace kelconf {

pthread_mutex_t file_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t file_cond = PTHREAD_COND_INITIALIZER;
std::uint8_t process_file_event = 0;

namespace {

qqueue_t* item_queue = nullptr;
bool file_events_ended = false; // guarded by file_mutex

} // namespace

qqueue_t* initItemQueue() {
    constexpr int kThreadSafe = 1;
    item_queue = qqueue(kThreadSafe);
    return item_queue;
}

bool item_queue_enqueue(const QueueItem* item) {
    return item_queue->push(item_queue, item, sizeof *item);
}

QueueItem* item_queue_dequeue() {
    std::size_t size = 0;
    return static_cast<QueueItem*>(item_queue->pop(item_queue, &size));
}

std::size_t item_queue_size() {
    return item_queue->size(item_queue);
}

void releaseQueueItem(QueueItem* item) {
    if (item == nullptr) {
        return;
    }
    freeText(item->name);
    freeText(item->value);
    freeText(item->prev_value);
    std::free(item); // the queue's own allocation
}

void raiseFileEvent() {
    pthread_mutex_lock(&file_mutex);
    process_file_event = 1;
    pthread_mutex_unlock(&file_mutex);
    pthread_cond_signal(&file_cond);
}

bool awaitFileEvent() {
    pthread_mutex_lock(&file_mutex);
    while (process_file_event == 0 && !file_events_ended) {
        pthread_cond_wait(&file_cond, &file_mutex);
    }
    const bool raised = process_file_event != 0;
    process_file_event = 0;
    pthread_mutex_unlock(&file_mutex);
    return raised;
}

void endFileEvents() {
    pthread_mutex_lock(&file_mutex);
    file_events_ended = true;
    pthread_mutex_unlock(&file_mutex);
    pthread_cond_broadcast(&file_cond);
}

void resumeFileEvents() {
    pthread_mutex_lock(&file_mutex);
    file_events_ended = false;
    pthread_mutex_unlock(&file_mutex);
}

} // namespace kelconf
