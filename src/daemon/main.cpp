// kelconfd: serves the live parameters on the bus (docs/service.md). Runs in the foreground until
// SIGTERM or SIGINT; arguments are ignored. Exit status: 0 after an orderly stop, and in the three
// cases that the modules end themselves (a neutral tree that does not parse, a failed bind of the
// publisher or a broker); 1 when it must not or cannot run.

#include "bus/endpoints.h"
#include "daemon/live_store.h"
#include "daemon/notify.h"
#include "daemon/runtime_dir.h"
#include "daemon/service.h"
#include "log/keldebug.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>

namespace kelconf {
namespace {

// Blocked in every thread: the main thread takes them when it waits.
sigset_t stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

void holdSignals() {
    const sigset_t set = stopSignals();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
}

bool waitOneSecond() {
    const sigset_t set = stopSignals();
    const timespec second{1, 0};
    return sigtimedwait(&set, nullptr, &second) < 0;
}

void announceReady() {
    switch (notifyManager(kNotifyReady)) {
    case Notified::kSent:
        return;
    case Notified::kFailed:
        keldebug(kLogWarning, kToBoth, "service manager not told: %s\n", std::strerror(errno));
        [[fallthrough]];
    case Notified::kNobody:
        keldebug(kLogInfo, kToBoth, "kelconfd ready\n");
    }
}

void serveUntilSignal() {
    int signal_number = 0;
    const sigset_t set = stopSignals();
    sigwait(&set, &signal_number);
    keldebug(kLogInfo, kToBoth, "kelconfd stops on signal %d\n", signal_number);
}

int run() {
    holdSignals();
    restrictFileModes();
    const Fd directory = openRuntimeDirectory(endpoints::kDirectory, geteuid());
    if (!directory) {
        return EXIT_FAILURE;
    }
    const Fd lock = lockInstance(directory);
    if (!lock) {
        return EXIT_FAILURE;
    }
    raiseDescriptorLimit();
    const LiveSource source = readyLiveStore(waitOneSecond);
    if (source.stopped) {
        return EXIT_SUCCESS;
    }
    if (!startService(source)) {
        std::quick_exit(EXIT_FAILURE); // threads may be left: no destructor runs under them
    }
    announceReady();
    serveUntilSignal();
    notifyManager(kNotifyStopping);
    stopService();
    keldebug(kLogInfo, kToBoth, "kelconfd stopped\n");
    return EXIT_SUCCESS;
}

} // namespace
} // namespace kelconf

int main() {
    try {
        return kelconf::run();
    } catch (const std::exception& failure) {
        // Only memory that cannot be had comes here, and threads may be running.
        kelconf::keldebug(kelconf::kLogError, kelconf::kToBoth, "kelconfd ends: %s\n",
                          failure.what());
        std::quick_exit(EXIT_FAILURE);
    }
}
