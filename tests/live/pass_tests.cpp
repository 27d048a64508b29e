// The order of a pass and of a backup, and the locks they hold, seen from the calls that they make.
#include "bus/bus_context.h"
#include "bus/event_publisher.h"
#include "bus/request_loops.h"
#include "bus/service_locks.h"
#include "daemon/bus_client.h"
#include "files/md5_sidecar.h"
#include "interposed.h"
#include "live_device.h"

#include <atomic>
#include <thread>

namespace kelconf::test {
namespace {

thread_local bool only_trying = false;

const struct {
    const char* name;
    std::int32_t (*enter)();
    std::int32_t (*leave)();
} kLocks[] = {{" get-all", enterGetAllCriticalSection, leaveGetAllCriticalSection},
              {" parameter", enterCriticalSection, leaveCriticalSection},
              {" backup", [] { return pthread_mutex_lock(&backup_mutex); },
               [] { return pthread_mutex_unlock(&backup_mutex); }},
              {" event", enterEventCriticalSection, leaveEventCriticalSection}};

using Steps = std::vector<std::string>;
Steps steps;
std::atomic<bool> watching{false};

// The step, and which locks are held; none of them can be entered twice, even by one thread.
void note(std::string step) {
    only_trying = true;
    for (const auto& [name, enter, leave] : kLocks) {
        step += enter() == 0 ? (leave(), "") : name;
    }
    only_trying = false;
    steps.push_back(std::move(step));
}

} // namespace

extern "C" {

int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
    return only_trying ? pthread_mutex_trylock(mutex) : REAL(pthread_mutex_lock)(mutex);
}

void sync() noexcept {
    if (watching) {
        note(checkConfigDBMD5() ? "sync sealed" : "sync");
    }
}

int fsync(int fd) {
    std::error_code error;
    if (watching && std::filesystem::equivalent("/proc/self/fd/" + std::to_string(fd),
                                                paths::kBackupDb, error)) {
        note(backup_pending == 1 ? "copy pending" : "copy");
    }
    return REAL(fsync)(fd);
}

int zmq_msg_send(zmq_msg_t* message, void* socket, int flags) {
    if (watching && socket == eventSock) {
        const std::string_view text{static_cast<const char*>(zmq_msg_data(message)),
                                    zmq_msg_size(message)};
        const bool at_once = text.find("p.state") != std::string_view::npos;
        note(at_once ? "event at once" : checkConfigDBMD5() ? "event sealed" : "event");
    }
    return REAL(zmq_msg_send)(message, socket, flags);
}

} // extern "C"

namespace {

TEST(Order, OfADirectSetAndItsBackup) {
    resetDevice();
    writeTree(leaf("word", "default") + leaf("state", "", "realtime"));
    start();
    ASSERT_TRUE(initBusContext());
    initEventSocket();
    std::thread loop(initSetSock);
    awaitRequestLoops(1);
    DeviceLog log;
    watching = true;
    EXPECT_TRUE(set("SET_ACTION_DIRECT", {{"p.state", "up"}, {"p.word", "newer"}}));
    const Steps expected = {"event at once get-all event",
                            "event sealed get-all parameter backup event",
                            "sync sealed get-all parameter backup"};
    EXPECT_EQ(steps, expected);
    steps.clear();
    tendLiveStore(true);
    EXPECT_EQ(steps, (Steps{"copy pending backup", "sync sealed"}));
    watching = false;
    stopRequestLoops();
    closeEventSocket(0);
    shutdownBusContext();
    loop.join();
    closeBusContext();
}

} // namespace
} // namespace kelconf::test
