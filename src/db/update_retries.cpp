#include "db/update_retries.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace kelconf {

namespace {

constexpr std::chrono::seconds kPause{1};

struct RetryGate {
    std::mutex mutex;
    std::condition_variable changed;
    bool closed = false; // guarded by mutex
};

RetryGate& retryGate() {
    static RetryGate gate;
    return gate;
}

void setRetryGate(bool closed) {
    RetryGate& gate = retryGate();
    {
        const std::lock_guard lock{gate.mutex};
        gate.closed = closed;
    }
    gate.changed.notify_all();
}

} // namespace

bool pauseBeforeRetry() {
    RetryGate& gate = retryGate();
    std::unique_lock lock{gate.mutex};
    return !gate.changed.wait_for(lock, kPause, [&] { return gate.closed; });
}

void endUpdateRetries() {
    setRetryGate(true);
}

void allowUpdateRetries() {
    setRetryGate(false);
}

} // namespace kelconf
