#include "base/owned.h"
#include "qlibc/use_qlibc.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <utility>

namespace {

struct Record {
    kelconf::Owned<void> data;
    std::size_t size = 0;
    std::unique_ptr<Record> next;
};

// What a qqueue_t pointer really points to. `mutex` guards the fields after it when the queue
// was made thread-safe.
struct Queue : qqueue_s {
    bool locked = false;
    std::mutex mutex;
    std::unique_ptr<Record> first;
    Record* last = nullptr;
    std::size_t count = 0;
};

Queue& of(qqueue_t* queue) {
    return *static_cast<Queue*>(queue);
}

std::unique_lock<std::mutex> lock(Queue& queue) {
    return queue.locked ? std::unique_lock{queue.mutex} : std::unique_lock<std::mutex>{};
}

std::unique_ptr<Record> newRecord(const void* data, std::size_t size) {
    std::unique_ptr<Record> record{new (std::nothrow) Record};
    if (record) {
        record->data.reset(std::malloc(size));
        record->size = size;
    }
    if (!record || !record->data) {
        return nullptr;
    }
    std::memcpy(record->data.get(), data, size);
    return record;
}

bool pushRecord(qqueue_t* self, const void* data, std::size_t size) {
    if (data == nullptr || size == 0) {
        errno = EINVAL;
        return false;
    }
    std::unique_ptr<Record> record = newRecord(data, size);
    if (!record) {
        errno = ENOMEM;
        return false;
    }
    Queue& queue = of(self);
    const std::unique_lock held = lock(queue);
    Record* added = record.get();
    (queue.last != nullptr ? queue.last->next : queue.first) = std::move(record);
    queue.last = added;
    ++queue.count;
    return true;
}

std::unique_ptr<Record> takeFirst(Queue& queue) {
    const std::unique_lock held = lock(queue);
    std::unique_ptr<Record> record = std::move(queue.first);
    if (record) {
        queue.first = std::move(record->next);
        if (!queue.first) {
            queue.last = nullptr;
        }
        --queue.count;
    }
    return record;
}

void* popRecord(qqueue_t* self, std::size_t* size) {
    const std::unique_ptr<Record> record = takeFirst(of(self));
    if (size != nullptr) {
        *size = record ? record->size : 0;
    }
    if (!record) {
        errno = ENOENT;
        return nullptr;
    }
    return record->data.release();
}

std::size_t countRecords(qqueue_t* self) {
    Queue& queue = of(self);
    const std::unique_lock held = lock(queue);
    return queue.count;
}

void freeQueue(qqueue_t* self) {
    const std::unique_ptr<Queue> queue{&of(self)};
    while (takeFirst(*queue)) { // one by one: a chain of owners would end in deep recursion
    }
}

} // namespace

qqueue_t* qqueue(int options) {
    std::unique_ptr<Queue> queue{new (std::nothrow) Queue};
    if (!queue) {
        errno = ENOMEM;
        return nullptr;
    }
    queue->push = pushRecord;
    queue->pop = popRecord;
    queue->size = countRecords;
    queue->free = freeQueue;
    queue->locked = (options & QQUEUE_THREADSAFE) != 0;
    return queue.release();
}
