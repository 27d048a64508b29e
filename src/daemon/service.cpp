#include "daemon/service.h"

#include "base/watched.h"
#include "bus/bus_context.h"
#include "bus/event_publisher.h"
#include "bus/request_loops.h"
#include "daemon/watchdog.h"
#include "db/update_retries.h"
#include "live/backup_pace.h"
#include "live/live.h"
#include "log/keldebug.h"
#include "service/item_queue.h"
#include "service/published_values.h"
#include "service/request_lists.h"
#include "service/write_back.h"

#include <pthread.h>

#include <array>
#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

namespace kelconf {

namespace {

constexpr std::int32_t kLoopsAndBrokers = 6;
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

bool isTrue(bool value) {
    return value;
}

Watched<bool> upkeep_ended;

void runUpkeep() {
    BackupPace pace;
    while (!upkeep_ended.awaitFor(std::chrono::seconds{kUpkeepPeriod}, isTrue)) {
        const auto now = std::chrono::steady_clock::now();
        if (tendLiveStore(pace.due(now))) {
            pace.noteTaken(now);
        }
    }
}

struct ServiceThread {
    void* (*body)(void*);
    const char* name; // at most 15 characters, for ps and the log
    pthread_t id{};
    bool started = false;
};

constexpr std::size_t kWriteBack = 0; // positions in the list below
constexpr std::size_t kUpkeep = 1;

// The write-back task comes first: a SET may be answered as soon as its loop runs.
std::array<ServiceThread, 9> threads{{{runBody<saveFileTask>, "write-back"},
                                      {runBody<runUpkeep>, "upkeep"},
                                      {runBody<initGetSock>, "get"},
                                      {runBody<initSetSock>, "set"},
                                      {runBody<initGetAllSock>, "get-all"},
                                      {runBody<initGetGroupSock>, "get-group"},
                                      {runBody<relayGets>, "get-broker"},
                                      {runBody<relaySets>, "set-broker"},
                                      {runBody<feedWatchdog>, "watchdog"}}};

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

void join(ServiceThread& thread) {
    if (thread.started) {
        pthread_join(thread.id, nullptr);
        thread.started = false;
    }
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
        done_.set(true);
        timer_.join();
    }
    RetryDeadline(const RetryDeadline&) = delete;
    RetryDeadline& operator=(const RetryDeadline&) = delete;
    RetryDeadline(RetryDeadline&&) = delete;
    RetryDeadline& operator=(RetryDeadline&&) = delete;

  private:
    void run() {
        if (!done_.awaitFor(std::chrono::seconds{kStopPatience}, isTrue)) {
            endUpdateRetries();
        }
    }

    Watched<bool> done_;
    std::thread timer_;
};

} // namespace

bool startService(LiveSource source) {
    connectLiveStore();
    loadLiveValues(std::move(source));
    publishValues();
    if (!openBus()) {
        return false;
    }
    for (ServiceThread& thread : threads) {
        if (!startThread(thread)) {
            return false;
        }
    }
    awaitRequestLoops(kLoopsAndBrokers);
    return true;
}

void stopService() {
    {
        const RetryDeadline deadline;
        stopRequestLoops();
        withdrawValues();
        endFileEvents();
        upkeep_ended.set(true);
        join(threads[kWriteBack]);
        join(threads[kUpkeep]);
    }
    endUpdateRetries();
    tendLiveStore(true);
    reportUnstored();
    closeEventSocket(kEventLinger);
    shutdownBusContext();
    for (ServiceThread& thread : threads) {
        join(thread);
    }
    closeBusContext();
}

} // namespace kelconf
