#include "daemon/stop_signal.h"

#include "base/watched.h"
#include "db/update_retries.h"
#include "files/backup.h"

#include <csignal>

namespace kelconf {

namespace {

struct StopState {
    int signal_number = 0;
    bool starting = true;
};

Watched<StopState>& state() {
    static auto* const kept = new Watched<StopState>; // the thread may outlive the statics
    return *kept;
}

bool signalled(const StopState& stop) {
    return stop.signal_number != 0;
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
    state().change([number](StopState& stop) {
        stop.signal_number = number;
        if (stop.starting) {
            endUpdateRetries();
        }
    });
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
    state().awaitFor(time, signalled);
    return state().get().signal_number;
}

int awaitStopSignal() {
    state().await(signalled);
    return state().get().signal_number;
}

int endOfStart() {
    state().change([](StopState& stop) { stop.starting = false; });
    return state().get().signal_number;
}

} // namespace kelconf
