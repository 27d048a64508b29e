// kelconfd: serves the live configuration on the bus (docs/service.md). Takes no arguments. Exit
// status: 0 after SIGTERM or SIGINT, 1 when it cannot serve; a neutral tree that cannot be parsed,
// and a publisher or broker that cannot be bound, end it with 0.

#include "bus/bus_context.h"
#include "bus/event_publisher.h"
#include "daemon/bus_directory.h"
#include "daemon/live_database.h"
#include "daemon/notify.h"
#include "daemon/threads.h"
#include "db/live_db.h"
#include "files/backup.h"
#include "files/bus_group.h"
#include "files/live_seal.h"
#include "log/keldebug.h"
#include "paths.h"
#include "service/item_queue.h"
#include "service/param_list.h"
#include "service/password_state.h"
#include "service/request_lists.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

using namespace kelconf; // NOLINT(google-build-using-namespace): the program of the library

namespace {

constexpr rlim_t kDescriptors = 65536; // connections of the bus take one each
constexpr mode_t kUserOnlyMask = 0077;
constexpr mode_t kUserAndGroupMask = 0007;

void step(const char* what) {
    keldebug(kLogInfo, kToBoth, "kelconfd: %s\n", what);
}

// libzmq aborts the process when it runs out of descriptors.
void raiseDescriptorLimit() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit wanted{kDescriptors, std::max(limit.rlim_max, kDescriptors)};
    if (limit.rlim_cur >= kDescriptors || setrlimit(RLIMIT_NOFILE, &wanted) == 0) {
        return;
    }
    limit.rlim_cur = limit.rlim_max; // no privilege to go further
    setrlimit(RLIMIT_NOFILE, &limit);
}

sigset_t blockEndSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    return signals;
}

void loadLiveValues() {
    pthread_mutex_lock(&backup_mutex);
    step("readying the live database");
    const LiveDatabase state = readyLiveDatabase();
    if (state != LiveDatabase::kUnusable) {
        markPasswordState(state == LiveDatabase::kMade);
        step("adding new names of the parameter trees");
        addNewNames();
        sealLiveDatabase();
    }
    step("loading the live parameters");
    initParamList();
    loadSQLDB();
    if (state == LiveDatabase::kUnusable && CheckParamListLength() == 0) {
        step("loading from the backup, since the live database cannot be read");
        loadDatabaseFile(paths::kBackupDb);
    }
    step("settling the stored passwords");
    settlePasswords();
    if (querySQLTable("") == 1) {
        sealLiveDatabase();
    }
    backup_pending = 1;
    pthread_mutex_unlock(&backup_mutex);
    sync();
}

void initServiceState() {
    initGetAnswerList();
    initSetAnswerList();
    initQryGroupListList();
    initItemQueue();
}

void announceReady() {
    if (!notifyManager("READY=1")) {
        step("ready");
    }
}

} // namespace

int main() {
    const sigset_t end_signals = blockEndSignals();
    umask(busGroup() ? kUserAndGroupMask : kUserOnlyMask);
    raiseDescriptorLimit();
    step("starting");
    if (!readyBusDirectory()) {
        return 1;
    }
    const Fd claim = claimBus();
    if (!claim) {
        return 1;
    }
    loadLiveValues();
    initServiceState();
    step("opening the bus");
    if (!initBusContext()) {
        keldebug(kLogError, kToBoth, "kelconfd: cannot make the bus context\n");
        return 1;
    }
    initEventSocket();
    if (!startServiceThreads()) {
        return 1;
    }
    announceReady();
    int signal_number = 0;
    sigwait(&end_signals, &signal_number);
    notifyManager("STOPPING=1");
    step("stopping");
    stopServiceThreads();
    step("stopped");
    return 0;
}
