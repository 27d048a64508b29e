#include "service/write_back.h"

#include "bus/bus_xml.h"
#include "bus/event_publisher.h"
#include "bus/service_locks.h"
#include "files/backup.h"
#include "log/keldebug.h"
#include "service/item_queue.h"
#include "service/storage.h"
#include "text/text.h"

#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kelconf {

namespace {

constexpr std::int64_t kBatchLimit = 1000;     // bytes of changes in one event
constexpr std::int64_t kItemOverhead = 100;    // bytes that each change counts beside its texts
constexpr std::size_t kTransactionRows = 1000; // of a longer queue: it bounds the journal

std::size_t changeMeter(const void* /*element*/) {
    return sizeof(ChangeRecord);
}

std::int64_t sizeOf(const QueueItem& item) {
    return static_cast<std::int64_t>(strlens(item.name) + strlens(item.value) +
                                     strlens(item.prev_value)) +
           kItemOverhead;
}

// Hands the item's texts over to the batch.
bool moveToBatch(simlist& batch, QueueItem& item) {
    const ChangeRecord change{item.name, item.value, item.prev_value};
    if (simlist_append(&batch, &change) != 1) {
        return false;
    }
    item = {nullptr, nullptr, nullptr};
    return true;
}

void logChange(const QueueItem& item) {
    if (checkParamLoggable(item.name) == 1) {
        keldebug(kLogInfo, kToSyslog, "configuration changes=>item name:%s value:%s\n", item.name,
                 item.value);
    }
}

struct ReleaseItem {
    void operator()(QueueItem* item) const { releaseQueueItem(item); }
};
using Item = std::unique_ptr<QueueItem, ReleaseItem>;

// Takes up to kTransactionRows records out of the queue and logs them.
std::vector<Item> takeItems() {
    std::vector<Item> items;
    while (items.size() < kTransactionRows && item_queue_size() > 0) {
        Item item{item_queue_dequeue()};
        if (!item) {
            break;
        }
        logChange(*item);
        items.push_back(std::move(item));
    }
    return items;
}

void storeItems(const std::vector<Item>& items, bool& refused) {
    std::vector<StoredChange> changes;
    changes.reserve(items.size());
    for (const Item& item : items) {
        changes.push_back({std::string{viewOf(item->name)}, std::string{viewOf(item->value)}});
    }
    storage().store(changes, refused);
}

// Stores every queued change; what is not announced at once is left in the batch.
void drainQueue(simlist& batch) {
    bool refused = false;
    std::int64_t total = 0;
    for (std::vector<Item> items = takeItems(); !items.empty(); items = takeItems()) {
        storeItems(items, refused);
        for (const Item& item : items) {
            total += sizeOf(*item);
            if (total > kBatchLimit || !moveToBatch(batch, *item)) {
                sendEvent(item->name, item->value, item->prev_value);
            }
        }
        if (item_queue_size() > 0) {
            storage().seal(); // every transaction finds the file sealed
        }
    }
}

} // namespace

void saveFileTask() {
    while (awaitFileEvent()) {
        saveFileDirect();
    }
}

void saveFileDirect() {
    const CriticalSection lock;
    writeParamToFile();
}

void writeParamToFile() {
    const BackupSection lock;
    simlist batch;
    simlist_init(&batch);
    simlist_attributes_copy(&batch, changeMeter, 1);
    drainQueue(batch);
    storage().seal();
    if (simlist_size(&batch) > 0) {
        sendMultipleEvent(&batch);
    }
    simlist_destroy(&batch);
    backup_pending = 1;
    sync();
}

std::int32_t checkParamLoggable(const char* name) {
    return std::strstr(name, "passwd") == nullptr ? 1 : 0;
}

void removeBreak(char* text) {
    char* line_feed = text == nullptr ? nullptr : std::strchr(text, '\n');
    if (line_feed != nullptr) {
        *line_feed = '\0';
    }
}

} // namespace kelconf
