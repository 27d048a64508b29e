// libkelbus in many threads, for the sanitizers. What its calls come to, python_test.py tells.
#include "client/bus_session.h"
#include "daemon/daemon_process.h"

#include <atomic>
#include <thread>

namespace kelconf::test {
namespace {

// Sets or reads, beside a started request and a watch. How many answers were right.
int rightAnswers(bool sets) {
    const BusSession bus = openBus();
    kelbus_watch* watch = nullptr;
    kelbus_watch_open_with(&watch, nullptr, 0, KELBUS_WATCH_VALUES);
    int right = 0;
    for (int round = 0; round < 50; ++round) {
        kelbus_request* request = nullptr;
        kelbus_values* values = nullptr;
        kelbus_change change{};
        kelbus_start_list(bus.get(), "cam.b", &request);
        right += (sets ? kelbus_set(bus.get(), "cam.a", "x", KELBUS_SET, kLimit) == KELBUS_OK
                       : many(bus, {"cam.b"}) == "cam.b=;")
                     ? 1
                     : 0;
        right += kelbus_watch_next(watch, &change, 0) != KELBUS_BROKEN_REPLY ? 1 : 0;
        const kelbus_error error = kelbus_request_finish(request, &values, kLimit);
        right += taken(error, values) == "cam.b=;" ? 1 : 0;
    }
    kelbus_watch_close(watch);
    return right;
}

TEST(Client, ServesThreadsWithClientsOfTheirOwn) {
    resetDevice("<t><cam type='trunk'><a type='string'>1</a><b type='string'/></cam></t>");
    Daemon service;
    ASSERT_TRUE(service.awaitReady());
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&right, i] { right += rightAnswers(i % 2 == 0); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right, 8 * 150);
}

} // namespace
} // namespace kelconf::test
