#include "daemon/threads.h"

#include "bus/bus_context.h"
#include "bus/event_publisher.h"
#include "bus/request_loops.h"
#include "db/live_db.h"
#include "files/backup.h"
#include "log/keldebug.h"
#include "service/item_queue.h"
#include "service/write_back.h"

#include <chrono>
#include <condition_variable>
#include <iterator>
#include <mutex>
#include <thread>

namespace kelconf {

namespace {

constexpr std::chrono::seconds kUpkeepInterval{5};
constexpr std::chrono::seconds kRetryPatience{2};
constexpr int kEventLinger = 500; // ms for the last events to reach their subscribers

struct Shared {
    std::mutex mutex;
    std::condition_variable changed;
    int running = 0; // threads that have not ended, without the request loops; guarded by mutex
    int brokers = 0; // those of them that relay
    bool stopping = false;
};

Shared& shared() {
    static Shared state;
    return state;
}

template <typename Change>
void change(Change apply) {
    {
        const std::lock_guard lock{shared().mutex};
        apply(shared());
    }
    shared().changed.notify_all();
}

template <typename Condition>
void await(Condition condition) {
    std::unique_lock lock{shared().mutex};
    shared().changed.wait(lock, [&] { return condition(shared()); });
}

// A copy of a database that cannot be read would take the place of a good one.
bool liveDatabaseReadable() {
    pthread_mutex_lock(&backup_mutex);
    const bool readable = querySQLTable("") == 1;
    pthread_mutex_unlock(&backup_mutex);
    return readable;
}

void runUpkeep() {
    std::unique_lock lock{shared().mutex};
    while (!shared().changed.wait_for(lock, kUpkeepInterval, [] { return shared().stopping; })) {
        lock.unlock();
        storeFailedChanges();
        if (backup_pending != 0 && liveDatabaseReadable()) {
            createBackupDBTask();
        }
        lock.lock();
    }
}

template <void (*Run)()>
void* loopThread(void* /*argument*/) {
    Run();
    return nullptr;
}

template <void (*Run)()>
void* countedThread(void* /*argument*/) {
    Run();
    change([](Shared& state) { --state.running; });
    return nullptr;
}

template <std::int32_t (*Relay)()>
void* brokerThread(void* /*argument*/) {
    Relay();
    change([](Shared& state) { --state.brokers; });
    return nullptr;
}

bool start(void* (*routine)(void*)) {
    if (CreateThread(routine, nullptr) == 0) {
        return true;
    }
    keldebug(kLogError, kToBoth, "cannot start a thread of the service\n");
    return false;
}

} // namespace

bool startServiceThreads() {
    change([](Shared& state) {
        state.running = 2;
        state.brokers = 2;
    });
    void* (*const loop_threads[])(void*) = {loopThread<initGetSock>, loopThread<initSetSock>,
                                            loopThread<initGetAllSock>,
                                            loopThread<initGetGroupSock>};
    for (auto* routine : {countedThread<saveFileTask>, countedThread<runUpkeep>,
                          brokerThread<initGetSyncSock>, brokerThread<initSetSyncSock>}) {
        if (!start(routine)) {
            return false;
        }
    }
    for (auto* routine : loop_threads) {
        if (!start(routine)) {
            return false;
        }
    }
    awaitRequestLoops(static_cast<std::int32_t>(std::size(loop_threads)));
    return true;
}

void stopServiceThreads() {
    change([](Shared& state) { state.stopping = true; });
    bool stopped = false;
    std::thread impatience([&] {
        std::unique_lock lock{shared().mutex};
        shared().changed.wait_for(lock, kRetryPatience, [&] { return stopped; });
        lock.unlock();
        endUpdateRetries();
    });
    stopRequestLoops();
    endFileEvents();
    await([](const Shared& state) { return state.running == 0; });
    if (item_queue_size() > 0) {
        saveFileDirect();
    }
    change([&](Shared& /*state*/) { stopped = true; });
    impatience.join();
    storeFailedChanges();
    if (backup_pending != 0 && liveDatabaseReadable()) {
        createBackupDBTask();
    }
    closeEventSocket(kEventLinger);
    shutdownBusContext();
    await([](const Shared& state) { return state.brokers == 0; });
    closeBusContext();
}

} // namespace kelconf
