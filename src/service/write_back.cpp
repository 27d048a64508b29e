#include "service/write_back.h"

#include "bus/bus_xml.h"
#include "bus/event_publisher.h"
#include "bus/service_locks.h"
#include "db/live_db.h"
#include "files/backup.h"
#include "files/live_seal.h"
#include "log/keldebug.h"
#include "service/item_queue.h"
#include "service/passwords.h"
#include "service/unstored.h"
#include "text/text.h"

#include <unistd.h>

#include <cstring>
#include <map>
#include <string>

namespace kelconf {

namespace {

constexpr std::int64_t kBatchLimit = 1000;  // bytes of changes in one event
constexpr std::int64_t kItemOverhead = 100; // bytes that each change counts beside its texts

std::size_t changeMeter(const void* /*element*/) {
    return sizeof(ChangeRecord);
}

// The text between the quotes of an SQL literal.
std::string withDoubledQuotes(std::string_view value) {
    std::string text;
    text.reserve(value.size());
    for (const char c : value) {
        text += c;
        if (c == '\'') {
            text += c;
        }
    }
    return text;
}

using Update = std::int32_t (*)(const char*, const char*);

// Hands the value to `update` in the form of the stored text.
std::int32_t updateStored(Update update, const char* name, const char* value) {
    if (strlens(value) == 0) {
        return update(name, "");
    }
    if (support_campass != 0 && isPasswordName(name)) {
        return update(name, scrambledForm(value).c_str());
    }
    if (std::strchr(value, '\'') != nullptr) {
        return update(name, withDoubledQuotes(value).c_str());
    }
    return update(name, value);
}

// A storage that has refused one row for ten seconds is not asked that long for each of the others:
// the locks are held meanwhile.
void storeValue(Update& update, const char* name, const char* value) {
    if (liveFile() != LiveFile::kLost && updateStored(update, name, value) == 1) {
        update = robustUpdateSQLEntry;
        noteStored(name);
    } else {
        update = updateSQLEntry;
        noteUnstored(name, value);
    }
}

// True when none is left.
bool retryUnstored() {
    const std::map<std::string, std::string>& changes = unstoredChanges();
    while (!changes.empty()) {
        const auto [name, value] = *changes.begin();
        if (updateStored(updateSQLEntry, name.c_str(), value.c_str()) != 1) {
            return false;
        }
        noteStored(name.c_str());
    }
    return true;
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

// Stores every queued change; what is not announced at once is left in the batch.
void drainQueue(simlist& batch) {
    Update update = robustUpdateSQLEntry;
    std::int64_t total = 0;
    while (item_queue_size() > 0) {
        QueueItem* item = item_queue_dequeue();
        if (item == nullptr) {
            return;
        }
        logChange(*item);
        storeValue(update, item->name, item->value);
        total += sizeOf(*item);
        if (total > kBatchLimit || !moveToBatch(batch, *item)) {
            sendEvent(item->name, item->value, item->prev_value);
        }
        releaseQueueItem(item);
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
    if (liveFile() != LiveFile::kLost) {
        sealLiveDatabase();
    }
    if (simlist_size(&batch) > 0) {
        sendMultipleEvent(&batch);
    }
    simlist_destroy(&batch);
    backup_pending = 1;
    sync();
}

void storeFailedChanges() {
    if (!anyUnstored()) {
        return;
    }
    const CriticalSection lock;
    const BackupSection files;
    if (liveFile() != LiveFile::kLost && retryUnstored()) {
        sealLiveDatabase();
        backup_pending = 1;
        keldebug(kLogInfo, kToBoth, "live database: changes that had failed are stored\n");
    }
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
