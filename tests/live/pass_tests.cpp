// The order of a pass and of a backup, and the locks they hold, seen from the calls that they make.
#include "bus/bus_context.h"
#include "bus/event_publisher.h"
#include "bus/request_loops.h"
#include "bus/service_locks.h"
#include "daemon/bus_client.h"
#include "files/md5_sidecar.h"
#include "live_device.h"

#include <dlfcn.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

namespace kelconf::test {
namespace {

// Whether another thread gets it within a moment; it goes on by itself once it can.
bool canTake(std::int32_t (*enter)(), std::int32_t (*leave)()) {
    auto taken = std::make_shared<std::promise<void>>();
    auto result = taken->get_future();
    std::thread([=] {
        enter();
        leave();
        taken->set_value();
    }).detach();
    return result.wait_for(std::chrono::milliseconds{150}) == std::future_status::ready;
}

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

// A lock that is held stays so until the step is over; one that is free is had at once.
void note(std::string step) {
    for (const auto& [name, enter, leave] : kLocks) {
        step += canTake(enter, leave) ? "" : name;
    }
    steps.push_back(std::move(step));
}

template <typename Call>
Call real(const char* name) {
    return reinterpret_cast<Call>(dlsym(RTLD_NEXT, name));
}

} // namespace
} // namespace kelconf::test

using kelconf::test::real;
using kelconf::test::watching;

extern "C" {

void sync() noexcept {
    if (watching) {
        kelconf::test::note(kelconf::checkConfigDBMD5() ? "sync sealed" : "sync");
    }
}

int fsync(int fd) {
    char link[64];
    char path[256] = "";
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    if (watching && readlink(link, path, sizeof path - 1) > 0 &&
        std::string_view{path} == kelconf::paths::kBackupDb) {
        kelconf::test::note(kelconf::backup_pending == 1 ? "copy pending" : "copy");
    }
    return real<int (*)(int)>("fsync")(fd);
}

int zmq_msg_send(zmq_msg_t* message, void* socket, int flags) {
    if (watching && socket == kelconf::eventSock) {
        const std::string_view text{static_cast<const char*>(zmq_msg_data(message)),
                                    zmq_msg_size(message)};
        const char* what = text.find("p.state") != std::string_view::npos ? "event at once"
                           : kelconf::checkConfigDBMD5()                  ? "event sealed"
                                                                          : "event";
        kelconf::test::note(what);
    }
    return real<int (*)(zmq_msg_t*, void*, int)>("zmq_msg_send")(message, socket, flags);
}

} // extern "C"

namespace kelconf::test {
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
