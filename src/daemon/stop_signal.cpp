#include "daemon/stop_signal.h"

#include "db/update_retries.h"
#include "files/backup.h"

#include <condition_variable>
#include <csignal>
#include <mutex>

namespace kelconf {

namespace {

struct StopState {
    std::mutex mutex;
    std::condition_variable changed;
    int signal_number = 0; // guarded by mutex, as the rest
    bool starting = true;
};

StopState& state() {
    static auto* const kept = new StopState; // the thread may outlive the statics
    return *kept;
}

sigset_t stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

// The first signal counts; later ones stay blocked.
void* watch(void* /*argument*/) {
    int number = 0;
    const sigset_t set = stopSignals();
    sigwait(&set, &number);
    {
        const std::lock_guard lock{state().mutex};
        state().signal_number = number;
        if (state().starting) {
            endUpdateRetries();
        }
    }
    state().changed.notify_all();
    return nullptr;
}

} // namespace

void holdStopSignals() {
    const sigset_t set = stopSignals();
    sigprocmask(SIG_BLOCK, &set, nullptr);
}

bool watchStopSignals() {
    return CreateThread(watch, nullptr) == 0;
}

int stopSignalWithin(std::chrono::milliseconds time) {
    std::unique_lock lock{state().mutex};
    state().changed.wait_for(lock, time, [] { return state().signal_number != 0; });
    return state().signal_number;
}

int awaitStopSignal() {
    std::unique_lock lock{state().mutex};
    state().changed.wait(lock, [] { return state().signal_number != 0; });
    return state().signal_number;
}

int endOfStart() {
    const std::lock_guard lock{state().mutex};
    state().starting = false;
    return state().signal_number;
}

} // namespace kelconf
