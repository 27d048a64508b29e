// kelconfd: serves the live parameters on the bus (docs/service.md). Runs in the foreground until
// SIGTERM or SIGINT; arguments are ignored. Exit status: 0 after an orderly stop, and in the three
// cases that the modules end themselves (a neutral tree that does not parse, a failed bind of the
// publisher or a broker); 1 when it must not or cannot run.

#include "bus/endpoints.h"
#include "daemon/notify.h"
#include "daemon/runtime_dir.h"
#include "daemon/service.h"
#include "daemon/stop_signal.h"
#include "live/live.h"
#include "log/keldebug.h"

#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <utility>

namespace kelconf {
namespace {

bool waitOneSecond() {
    return stopSignalWithin(std::chrono::seconds{1}) == 0;
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
    if (endOfStart() == 0) {
        announceReady();
    }
    keldebug(kLogInfo, kToBoth, "kelconfd stops on signal %d\n", awaitStopSignal());
}

// Each connection stays in the thread that opens it, and nobody asks how much memory SQLite has.
void prepareSqlite() {
    sqlite3_config(SQLITE_CONFIG_MULTITHREAD);
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
}

// False, with a log line, when this process must not run.
bool takeGround(Fd& lock) {
    restrictFileModes();
    const Fd directory = openRuntimeDirectory(endpoints::kDirectory, geteuid());
    if (!directory) {
        return false;
    }
    lock = lockInstance(directory);
    raiseDescriptorLimit();
    return static_cast<bool>(lock);
}

int run() {
    std::signal(SIGPIPE, SIG_IGN);
    holdStopSignals();
    prepareSqlite();
    Fd lock;
    if (!takeGround(lock)) {
        return EXIT_FAILURE;
    }
    if (!watchStopSignals()) {
        keldebug(kLogError, kToBoth, "no thread for the stop signals\n");
        return EXIT_FAILURE;
    }
    LiveSource source = readyLiveStore(waitOneSecond);
    if (source.origin == LiveOrigin::kNone) {
        return EXIT_SUCCESS;
    }
    if (!startService(std::move(source))) {
        std::quick_exit(EXIT_FAILURE); // threads may be left: no destructor runs under them
    }
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
