#include "service/write_back.h"

#include "bus/bus_xml.h"
#include "bus/event_publisher.h"
#include "bus/service_locks.h"
#include "db/live_db.h"
#include "db/live_rows.h"
#include "files/backup.h"
#include "files/live_seal.h"
#include "log/keldebug.h"
#include "service/item_queue.h"
#include "service/param_list.h"
#include "service/password_state.h"
#include "service/passwords.h"
#include "text/text.h"

#include <unistd.h>

#include <atomic>
#include <cstring>
#include <set>
#include <string>
#include <vector>

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

// Names whose last storing failed. Guarded by the parameter lock; the flag says without it
// whether there are any.
std::set<std::string>& failedNames() {
    static std::set<std::string> names;
    return names;
}
std::atomic<bool> any_failed{false};

// Hands the value to `update` in the form of the stored text.
std::int32_t updateStored(std::int32_t (*update)(const char*, const char*), const char* name,
                          const char* value) {
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

void storeValue(const char* name, const char* value) {
    if (updateStored(robustUpdateSQLEntry, name, value) == 1) {
        if (any_failed) {
            failedNames().erase(name);
        }
        return;
    }
    failedNames().insert(name);
    any_failed = true;
}

// The file was deleted under the service: everything is stored anew. Which type word a parameter
// had, other than realtime, is not known any more.
bool rebuildFromMemory() {
    std::vector<NewRow> rows;
    for (std::uint32_t i = 0; const ParamElement* param = paramElementAt(i); ++i) {
        const bool scramble = support_campass != 0 && isPasswordName(param->name);
        rows.push_back({param->name, scramble ? scrambledForm(param->value) : param->value,
                        param->persistent == 1 ? "" : "realtime"});
    }
    if (rows.empty() || !makeTable(rows, support_campass != 0 ? scrambledMark : plainMark)) {
        return false;
    }
    keldebug(kLogWarning, kToBoth, "live database had lost its table, made anew from memory\n");
    failedNames().clear();
    return true;
}

// True when none is left.
bool retryFailedNames() {
    std::set<std::string>& names = failedNames();
    while (!names.empty()) {
        const ParamElement* param = seekParamElement(names.begin()->c_str());
        if (param != nullptr && updateStored(updateSQLEntry, param->name, param->value) != 1) {
            return false;
        }
        names.erase(names.begin());
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
    std::int64_t total = 0;
    while (item_queue_size() > 0) {
        QueueItem* item = item_queue_dequeue();
        if (item == nullptr) {
            return;
        }
        logChange(*item);
        storeValue(item->name, item->value);
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
    pthread_mutex_lock(&backup_mutex);
    simlist batch;
    simlist_init(&batch);
    simlist_attributes_copy(&batch, changeMeter, 1);
    drainQueue(batch);
    sealLiveDatabase();
    if (simlist_size(&batch) > 0) {
        sendMultipleEvent(&batch);
    }
    simlist_destroy(&batch);
    backup_pending = 1;
    sync();
    pthread_mutex_unlock(&backup_mutex);
}

void storeFailedChanges() {
    if (!any_failed) {
        return;
    }
    const CriticalSection lock;
    pthread_mutex_lock(&backup_mutex);
    if (rebuildFromMemory() || retryFailedNames()) {
        any_failed = false;
        sealLiveDatabase();
        backup_pending = 1;
        keldebug(kLogInfo, kToBoth, "live database: changes that had failed are stored\n");
    }
    pthread_mutex_unlock(&backup_mutex);
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
