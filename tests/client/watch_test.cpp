// The watch of libkelbus with the real service.
#include "client/bus_session.h"
#include "daemon/daemon_process.h"

#include <sys/stat.h>

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
        EXPECT_EQ(watch.next(1000), std::string{"private.a: "}.append(before).append(" -> ") + now);
        before = now;
    }
}

// The device root has no capabilities: its root is kept out like anybody.
TEST_F(Watch, SaysThatItIsKeptOut) {
    ASSERT_EQ(chmod("/tmp/kelbus", 0), 0);
    kelbus_watch* kept_out = nullptr;
    EXPECT_EQ(kelbus_watch_open(&kept_out, nullptr, 0), KELBUS_REFUSED);
    EXPECT_EQ(kept_out, nullptr);
    ASSERT_EQ(chmod("/tmp/kelbus", 0700), 0);
    service_->stop();
    WatchSession early;
    EXPECT_EQ(early.next(10), kelbus_strerror(KELBUS_TIMEOUT));
    ASSERT_EQ(chmod("/tmp/kelbus", 0), 0);
    EXPECT_EQ(early.next(), kelbus_strerror(KELBUS_REFUSED));
    ASSERT_EQ(chmod("/tmp/kelbus", 0700), 0);
    start();
    std::string seen;
    for (int i = 0; seen.find(" -> ") == std::string::npos && i < 600; ++i) {
        ASSERT_EQ(bus_.set("private.a", "now " + std::to_string(i)), KELBUS_OK);
        seen = early.next(100);
    }
    EXPECT_EQ(seen.substr(0, 11), "private.a: ");
}

} // namespace
} // namespace kelconf::test
