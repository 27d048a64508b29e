#include "daemon/service.h"

#include "bus/bus_context.h"
#include "bus/event_publisher.h"
#include "bus/request_loops.h"
#include "daemon/live_store.h"
#include "db/live_db.h"
#include "files/backup.h"
#include "log/keldebug.h"
#include "service/item_queue.h"
#include "service/param_list.h"
#include "service/password_state.h"
#include "service/request_lists.h"
#include "service/write_back.h"

#include <pthread.h>

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

namespace kelconf {

namespace {

constexpr std::int32_t kRequestLoops = 4;
constexpr int kEventLinger = 500; // ms for the last events to reach their subscribers

template <void (*Body)()>
void* runBody(void* /*argument*/) {
    Body();
    return nullptr;
}

void relayGets() {
    initGetSyncSock();
}

void relaySets() {
    initSetSyncSock();
}

struct ServiceThread {
    void* (*body)(void*);
    const char* name; // at most 15 characters, for ps and the log
    pthread_t id{};
    bool started = false;
};

// The write-back task comes first: a SET may be answered as soon as its loop runs.
std::array<ServiceThread, 7> threads{{{runBody<saveFileTask>, "write-back"},
                                      {runBody<initGetSock>, "get"},
                                      {runBody<initSetSock>, "set"},
                                      {runBody<initGetAllSock>, "get-all"},
                                      {runBody<initGetGroupSock>, "get-group"},
                                      {runBody<relayGets>, "get-broker"},
                                      {runBody<relaySets>, "set-broker"}}};

bool startThread(ServiceThread& thread) {
    const int error = pthread_create(&thread.id, nullptr, thread.body, nullptr);
    if (error != 0) {
        keldebug(kLogError, kToBoth, "thread %s not started: %s\n", thread.name,
                 std::strerror(error));
        return false;
    }
    thread.started = true;
    pthread_setname_np(thread.id, thread.name);
    return true;
}

void joinThreads() {
    for (ServiceThread& thread : threads) {
        if (thread.started) {
            pthread_join(thread.id, nullptr);
            thread.started = false;
        }
    }
}

void loadLiveValues() {
    pthread_mutex_lock(&backup_mutex);
    initParamList();
    loadSQLDB();
    keldebug(kLogInfo, kToBoth, "%d live parameters loaded\n", CheckParamListLength());
    settlePasswords();
    pthread_mutex_unlock(&backup_mutex);
}

bool openBus() {
    initGetAnswerList();
    initSetAnswerList();
    initQryGroupListList();
    if (initItemQueue() == nullptr || !initBusContext()) {
        keldebug(kLogError, kToBoth, "no memory for the bus\n");
        return false;
    }
    initEventSocket();
    return true;
}

// Grants the updates that fail time to be retried, then ends the retries.
class RetryDeadline {
  public:
    RetryDeadline() : timer_([this] { run(); }) {}
    ~RetryDeadline() {
        {
            const std::lock_guard lock{mutex_};
            done_ = true;
        }
        changed_.notify_all();
        timer_.join();
    }
    RetryDeadline(const RetryDeadline&) = delete;
    RetryDeadline& operator=(const RetryDeadline&) = delete;
    RetryDeadline(RetryDeadline&&) = delete;
    RetryDeadline& operator=(RetryDeadline&&) = delete;

  private:
    void run() {
        std::unique_lock lock{mutex_};
        if (!changed_.wait_for(lock, std::chrono::seconds{kPatience}, [this] { return done_; })) {
            endUpdateRetries();
        }
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    bool done_ = false; // guarded by mutex_
    std::thread timer_;
};

} // namespace

bool startService() {
    loadLiveValues();
    if (!openBus()) {
        return false;
    }
    for (ServiceThread& thread : threads) {
        if (!startThread(thread)) {
            return false;
        }
    }
    awaitRequestLoops(kRequestLoops);
    return true;
}

void runBackup() {
    if (backup_pending != 0) {
        createBackupDBTask();
        protectStoredFiles();
    }
}

void stopService() {
    {
        const RetryDeadline deadline;
        stopRequestLoops();
        endFileEvents();
        pthread_join(threads[0].id, nullptr);
        threads[0].started = false;
    }
    runBackup();
    closeEventSocket(kEventLinger);
    shutdownBusContext();
    joinThreads();
    closeBusContext();
}

} // namespace kelconf
