// The watch of libkelbus with the real service.
#include "client/bus_session.h"
#include "daemon/daemon_process.h"

namespace kelconf::test {
namespace {

class Watch : public ::testing::Test {
  protected:
    void SetUp() override {
        resetDevice(treeOf(leaf("a", "string", "1") + leaf("b", "string", "2")));
        start();
    }
    void start() {
        service_.emplace();
        ASSERT_TRUE(service_->awaitReady());
    }
    std::optional<Daemon> service_;
    BusSession bus_;
};

// An event that goes out just before must not hide the new subscription from the publisher.
TEST_F(Watch, SeesTheFirstChangeAfterItWasOpened) {
    std::string before = "1";
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(bus_.set("private.b", std::to_string(i), KELBUS_SET_NO_DB), KELBUS_OK);
        WatchSession watch{{"private.a"}};
        const std::string now = "now " + std::to_string(i);
        ASSERT_EQ(bus_.set("private.a", now, KELBUS_SET_NO_DB), KELBUS_OK);
        EXPECT_EQ(watch.next(1000), "private.a: " + before + " -> " + now);
        before = now;
    }
}

} // namespace
} // namespace kelconf::test
