// The watch of libkelbus with the real service.
#include "client/bus_session.h"
#include "daemon/daemon_process.h"

#include <poll.h>
#include <sys/stat.h>

#include <atomic>
#include <map>
#include <thread>

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

using Owned = std::unique_ptr<kelbus_watch, void (*)(kelbus_watch*)>;

Owned watchWith(unsigned options, const std::vector<const char*>& prefixes = {}) {
    kelbus_watch* opened = nullptr;
    EXPECT_EQ(kelbus_watch_open_with(&opened, prefixes.data(), prefixes.size(), options),
              KELBUS_OK);
    return {opened, kelbus_watch_close};
}

// "gap", "name=value" for a value, "name: before -> now" for a change, or the error in words.
std::string told(const Owned& watch, int limit = kLimit) {
    kelbus_change change{};
    const kelbus_error error = kelbus_watch_next(watch.get(), &change, limit);
    if (error != KELBUS_OK) {
        return kelbus_strerror(error);
    }
    if (change.name == nullptr) {
        return "gap";
    }
    const std::string name = change.name;
    return change.prev_value == nullptr ? name + "=" + change.value
                                        : name + ": " + change.prev_value + " -> " + change.value;
}

// Through the descriptor alone, as an event loop does.
std::string polled(const Owned& watch) {
    for (;;) {
        if (std::string text = told(watch, 0); text != kelbus_strerror(KELBUS_TIMEOUT)) {
            return text;
        }
        pollfd source{kelbus_watch_fd(watch.get()), POLLIN, 0};
        if (poll(&source, 1, kLimit) != 1) {
            return "nothing";
        }
    }
}

using Told = std::vector<std::string>;

TEST_F(Watch, TellsValuesChangesAndGaps) {
    for (const bool by_descriptor : {false, true}) {
        const auto next = [&](const Owned& watch) {
            return by_descriptor ? polled(watch) : told(watch);
        };
        ASSERT_EQ(bus_.set("private.a", "1", KELBUS_SET_DIRECT), KELBUS_OK);
        const Owned values = watchWith(KELBUS_WATCH_VALUES);
        const Owned one = watchWith(KELBUS_WATCH_VALUES, {"private.b"});
        const Owned gaps = watchWith(KELBUS_WATCH_GAPS);
        ASSERT_EQ(bus_.set("private.a", "3", KELBUS_SET_NO_DB), KELBUS_OK); // not read yet: waits
        EXPECT_EQ(next(values).substr(0, 10), "private.a="); // before that change or after it
        EXPECT_EQ(next(values), "private.b=2");
        EXPECT_EQ(next(values), "private.a: 1 -> 3");
        EXPECT_EQ(next(one), "private.b=2");
        EXPECT_EQ(next(gaps), "private.a: 1 -> 3");
        // Left unread where values are told: it must not come after them.
        ASSERT_EQ(bus_.set("private.a", "9", KELBUS_SET_NO_DB), KELBUS_OK);
        EXPECT_EQ(next(gaps), "private.a: 3 -> 9");
        service_->stop();
        EXPECT_EQ(told(gaps, 10), kelbus_strerror(KELBUS_TIMEOUT));
        start();
        EXPECT_EQ(next(gaps), "gap");
        EXPECT_EQ((Told{next(one), next(one)}), (Told{"gap", "private.b=2"}));
        std::this_thread::sleep_for(std::chrono::milliseconds{300});  // likely long enough for:
        if (const std::string first = next(values); first != "gap") { // not connected yet
            EXPECT_EQ((Told{first, next(values)}), (Told{"private.a: 3 -> 9", "gap"}));
        }
        EXPECT_EQ((Told{next(values), next(values)}), (Told{"private.a=1", "private.b=2"}));
        ASSERT_EQ(bus_.set("private.a", "4", KELBUS_SET_NO_DB), KELBUS_OK);
        EXPECT_EQ((Told{next(values), next(gaps)}),
                  (Told{"private.a: 1 -> 4", "private.a: 1 -> 4"}));
        service_->stop();
        start();
    }
    kelbus_watch* none = nullptr;
    EXPECT_EQ(kelbus_watch_open_with(&none, nullptr, 0, 4), KELBUS_BAD_ARGUMENT);
}

// What it is told, applied in order, is the state of the service, however the changes fall.
TEST_F(Watch, EndsInTheStateOfTheService) {
    std::atomic<bool> over{false};
    std::thread setter{[&] {
        BusSession bus;
        for (int i = 0; !over; ++i) {
            bus.set(i % 2 == 0 ? "private.a" : "private.b", std::to_string(i), KELBUS_SET_NO_DB);
        }
    }};
    using State = std::map<std::string, std::string>;
    const auto follow = [](const Owned& watch, State& state) {
        kelbus_change change{};
        ASSERT_EQ(kelbus_watch_next(watch.get(), &change, kLimit), KELBUS_OK);
        EXPECT_EQ(state.contains(change.name), change.prev_value != nullptr) << "values first";
        state[change.name] = change.value;
    };
    std::vector<std::pair<Owned, State>> watches;
    for (int i = 0; i < 20; ++i) {
        watches.emplace_back(watchWith(KELBUS_WATCH_VALUES), State{});
        follow(watches.back().first, watches.back().second);
    }
    over = true;
    setter.join();
    const std::string last = bus_.value("private.a");
    ASSERT_EQ(bus_.set("private.b", "end", KELBUS_SET_NO_DB), KELBUS_OK);
    for (auto& [watch, state] : watches) {
        while (!HasFailure() && (state.size() < 2 || state["private.b"] != "end")) {
            follow(watch, state);
        }
        EXPECT_EQ(state["private.a"], last);
    }
}

TEST_F(Watch, BringsTheValuesOfAServiceThatComesLater) {
    service_->stop();
    const Owned watch = watchWith(KELBUS_WATCH_VALUES);
    EXPECT_EQ(told(watch, 10), kelbus_strerror(KELBUS_TIMEOUT));
    start();
    EXPECT_EQ((Told{told(watch), told(watch)}), (Told{"private.a=1", "private.b=2"}));
}

} // namespace
} // namespace kelconf::test
