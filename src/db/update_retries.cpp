#include "db/update_retries.h"

#include "base/watched.h"

namespace kelconf {

namespace {

constexpr std::chrono::seconds kPause{1};

Watched<bool>& retriesEnded() {
    static Watched<bool> ended;
    return ended;
}

} // namespace

bool pauseBeforeRetry() {
    return !retriesEnded().awaitFor(kPause, [](bool ended) { return ended; });
}

void endUpdateRetries() {
    retriesEnded().set(true);
}

void allowUpdateRetries() {
    retriesEnded().set(false);
}

} // namespace kelconf
