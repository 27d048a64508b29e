// libkelbus in many threads, for the sanitizers. What its calls come to, python_test.py tells.
#include "client/bus_session.h"
#include "daemon/daemon_process.h"

#include <atomic>
#include <thread>

namespace kelconf::test {
namespace {

// Reads, sets and watches side by side. Whether all went well.
bool allWell() {
    const BusSession bus = openBus();
    kelbus_watch* watch = nullptr;
    bool well = kelbus_watch_open_with(&watch, nullptr, 0, KELBUS_WATCH_VALUES) == KELBUS_OK;
    for (int round = 0; round < 50; ++round) {
        kelbus_request* request = nullptr;
        kelbus_values* values = nullptr;
        kelbus_change change{};
        well = well && kelbus_start_list(bus.get(), "cam.b", &request) == KELBUS_OK &&
               kelbus_set(bus.get(), "cam.a", "x", KELBUS_SET, kLimit) == KELBUS_OK &&
               many(bus, {"cam.a"}) == "cam.a=x;" &&
               kelbus_watch_next(watch, &change, 0) != KELBUS_BROKEN_REPLY;
        const kelbus_error error = kelbus_request_finish(request, &values, kLimit);
        well = well && taken(error, values) == "cam.b=;";
    }
    kelbus_watch_close(watch);
    return well;
}

TEST(Client, ServesThreadsWithClientsOfTheirOwn) {
    resetDevice("<t><cam type='trunk'><a type='string'>1</a><b type='string'/></cam></t>");
    Daemon service;
    ASSERT_TRUE(service.awaitReady());
    std::atomic<int> well{0};
    std::vector<std::thread> threads(8);
    for (std::thread& thread : threads) {
        thread = std::thread{[&well] { well += allWell() ? 1 : 0; }};
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(well, 8);
}

} // namespace
} // namespace kelconf::test
