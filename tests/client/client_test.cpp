// libkelbus with the real service.
#include "client/bus_session.h"
#include "daemon/daemon_process.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <atomic>
#include <thread>

namespace kelconf::test {
namespace {

std::string smallTree() {
    std::string leaves = leaf("empty", "string", "");
    for (const char* name : {"a", "b", "c", "d"}) {
        leaves += leaf(name, "string", std::string{"value "} + name);
    }
    return treeOf(leaves + leaf("passwd", "password", "secret"));
}

class Client : public ::testing::Test {
  protected:
    void SetUp() override {
        resetDevice(smallTree());
        start();
    }
    void start() {
        service_.emplace();
        ASSERT_TRUE(service_->awaitReady());
    }
    std::optional<Daemon> service_;
    BusSession bus_;
};

TEST_F(Client, ReadsOneManyAllAndGroups) {
    EXPECT_EQ(bus_.value("private.a"), "value a");
    EXPECT_EQ(bus_.value("private.empty"), "");
    EXPECT_EQ(bus_.value("private.A"), kelbus_strerror(KELBUS_UNKNOWN_NAME));
    EXPECT_EQ(bus_.message(), "no parameter has the name \"private.A\"");
    using Many = std::pair<kelbus_error, Pairs>;
    EXPECT_EQ(bus_.many({"private.b", "private.empty", "private.b"}),
              (Many{KELBUS_OK,
                    {{"private.b", "value b"}, {"private.empty", ""}, {"private.b", "value b"}}}));
    EXPECT_EQ(bus_.message(), "");
    EXPECT_EQ(bus_.many({"x", "private.empty", "private.a", "y", "private.empty", "z"}),
              (Many{KELBUS_UNKNOWN_NAME,
                    {{"x", kUnknown},
                     {"private.empty", ""},
                     {"private.a", "value a"},
                     {"y", kUnknown},
                     {"private.empty", ""},
                     {"z", kUnknown}}}));
    EXPECT_EQ(bus_.message(), "no parameter has the name \"x\"");
    EXPECT_EQ(bus_.many({}), (Many{KELBUS_OK, {}}));

    kelbus_values* values = nullptr;
    ASSERT_EQ(kelbus_get_all(bus_.get(), &values, kLimit), KELBUS_OK);
    const Pairs all = BusSession::taken(values);
    EXPECT_EQ(all.size(), 6U);
    EXPECT_TRUE(std::is_sorted(all.begin(), all.end()));
    const char* groups[] = {"private.", "a"};
    ASSERT_EQ(kelbus_get_group(bus_.get(), groups, 2, &values, kLimit), KELBUS_OK);
    EXPECT_EQ(BusSession::taken(values), all);
    ASSERT_EQ(kelbus_get_group(bus_.get(), groups + 1, 1, &values, kLimit), KELBUS_OK);
    EXPECT_EQ(BusSession::taken(values), Pairs{});
}

TEST_F(Client, SetsEachKindAndKeepsWhatItPromises) {
    EXPECT_EQ(bus_.set("private.a", "later"), KELBUS_OK);
    EXPECT_EQ(bus_.set("private.b", "direct", KELBUS_SET_DIRECT), KELBUS_OK);
    EXPECT_EQ(bus_.set("private.c", "memory", KELBUS_SET_NO_DB), KELBUS_OK);
    const kelbus_parameter several[] = {{"private.d", "1"}, {"no", "2"}, {"private.empty", "3"}};
    EXPECT_EQ(kelbus_set_many(bus_.get(), several, 3, KELBUS_SET, kLimit), KELBUS_UNKNOWN_NAME);
    EXPECT_EQ(bus_.message(), "no parameter has the name \"no\"");
    EXPECT_EQ(service_->stop(), 0);
    start();
    const std::pair<const char*, const char*> kept[] = {{"private.a", "later"},
                                                        {"private.b", "direct"},
                                                        {"private.c", "value c"},
                                                        {"private.d", "1"},
                                                        {"private.empty", "3"}};
    for (const auto& [name, value] : kept) {
        EXPECT_EQ(bus_.value(name), value) << name;
    }
}

// Whatever XML can carry comes back; the rest is refused before anything is sent.
TEST_F(Client, CarriesEveryTextThatXmlCarries) {
    std::string printable;
    for (char c = ' '; c < 127; ++c) {
        printable += c;
    }
    const std::string carried[] = {printable,
                                   "]]>",
                                   "<a b=\"c\">&amp;&#65;",
                                   " \t\n\r\n ",
                                   "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x93\xB7",
                                   "\x7F\xC2\x85",
                                   "\xEF\xBF\xBD",
                                   std::string(1'000'000, '&')};
    for (const std::string& value : carried) {
        ASSERT_EQ(bus_.set("private.a", value, KELBUS_SET_NO_DB), KELBUS_OK);
        EXPECT_TRUE(bus_.value("private.a") == value) << value.substr(0, 100);
        EXPECT_EQ(bus_.value(value), kelbus_strerror(KELBUS_UNKNOWN_NAME)) << value.substr(0, 100);
    }
    const std::string refused[] = {"\x01",         "a\x1B[0m",     "\xFF",    "\xC3",
                                   "\xED\xA0\x80", "\xEF\xBF\xBE", "\xC0\xAF"};
    for (const std::string& value : refused) {
        EXPECT_EQ(bus_.set("private.b", value), KELBUS_BAD_ARGUMENT) << value;
        EXPECT_EQ(bus_.value(value), kelbus_strerror(KELBUS_BAD_ARGUMENT)) << value;
    }
    EXPECT_EQ(bus_.set("private.b", std::string(17'000'000, 'x')), KELBUS_BAD_ARGUMENT);
    EXPECT_EQ(bus_.value(""), kelbus_strerror(KELBUS_BAD_ARGUMENT));
    EXPECT_EQ(kelbus_set(bus_.get(), "private.b", nullptr, KELBUS_SET, kLimit),
              KELBUS_BAD_ARGUMENT);
    EXPECT_EQ(kelbus_set(bus_.get(), "private.b", "1", static_cast<kelbus_kind>(3), kLimit),
              KELBUS_BAD_ARGUMENT);
    EXPECT_EQ(kelbus_get_many(bus_.get(), nullptr, 1, nullptr, kLimit), KELBUS_BAD_ARGUMENT);
    EXPECT_EQ(bus_.value("private.b"), "value b");
}

TEST_F(Client, GoesOnAfterARestartOfTheService) {
    WatchSession watch;
    EXPECT_EQ(bus_.value("private.a"), "value a");
    service_->killNow();
    EXPECT_EQ(bus_.value("private.a"), kelbus_strerror(KELBUS_NO_SERVICE));
    EXPECT_EQ(BusSession{}.value("private.a"), kelbus_strerror(KELBUS_NO_SERVICE));
    start();
    EXPECT_EQ(bus_.value("private.a"), "value a");
    // The watch connects again by itself; each new value is seen once it has.
    std::string seen = "no";
    for (int i = 0; seen.find(" -> ") == std::string::npos && i < 600; ++i) {
        ASSERT_EQ(bus_.set("private.b", std::to_string(i), KELBUS_SET_NO_DB), KELBUS_OK);
        seen = watch.next(100);
    }
    EXPECT_EQ(seen.substr(0, 11), "private.b: ");
}

TEST_F(Client, WatchesByPrefixInOrder) {
    WatchSession all;
    WatchSession some{{"private.b", "private.c"}};
    const kelbus_parameter changes[] = {
        {"private.a", "<&>"}, {"private.c", "\xE2\x82\xAC"}, {"private.b", ""}};
    ASSERT_EQ(kelbus_set_many(bus_.get(), changes, 3, KELBUS_SET_DIRECT, kLimit), KELBUS_OK);
    EXPECT_EQ(all.next(), "private.a: value a -> <&>");
    EXPECT_EQ(all.next(), "private.c: value c -> \xE2\x82\xAC");
    EXPECT_EQ(all.next(), "private.b: value b -> ");
    EXPECT_EQ(some.next(), "private.c: value c -> \xE2\x82\xAC");
    EXPECT_EQ(some.next(), "private.b: value b -> ");
    EXPECT_EQ(some.next(0), kelbus_strerror(KELBUS_TIMEOUT));
}

// The rule of the header: drain, poll, drain.
TEST_F(Client, WatchesThroughPoll) {
    WatchSession watch{{"private.a"}};
    pollfd source{kelbus_watch_fd(watch.get()), POLLIN, 0};
    constexpr int kChanges = 300;
    std::thread setter{[&] {
        for (int i = 0; i < kChanges; ++i) {
            bus_.set("private.a", std::to_string(i), KELBUS_SET_NO_DB);
        }
    }};
    int seen = 0;
    while (seen < kChanges) {
        std::string change;
        while ((change = watch.next(0)) != kelbus_strerror(KELBUS_TIMEOUT)) {
            EXPECT_EQ(change.substr(change.find("-> ")), "-> " + std::to_string(seen++));
        }
        if (seen < kChanges) {
            ASSERT_EQ(poll(&source, 1, kLimit), 1);
        }
    }
    setter.join();
}

TEST_F(Client, ServesThreadsWithClientsOfTheirOwn) {
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&right, i] {
            BusSession bus;
            WatchSession watch{{"private.a"}};
            for (int round = 0; round < 50; ++round) {
                right += i % 2 == 0
                             ? (bus.value("private.b") == "value b" ? 1 : 0)
                             : (bus.set("private.a", std::to_string(round)) == KELBUS_OK ? 1 : 0);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(right, 400);
}

TEST_F(Client, ServesAThousandWatches) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    std::vector<std::unique_ptr<WatchSession>> watches;
    for (int i = 0; i < 1000; ++i) {
        watches.push_back(std::make_unique<WatchSession>(std::vector<const char*>{"private.a"}));
        ASSERT_NE(watches.back()->get(), nullptr) << i;
    }
    ASSERT_EQ(bus_.set("private.a", "for all"), KELBUS_OK);
    for (const auto& watch : watches) {
        ASSERT_EQ(watch->next(), "private.a: value a -> for all");
    }
}

// The device root has no capabilities: its root is kept out like anybody.
TEST_F(Client, SaysThatItMayNotConnect) {
    ASSERT_EQ(chmod("/tmp/kelbus", 0), 0);
    EXPECT_EQ(bus_.value("private.a"), kelbus_strerror(KELBUS_REFUSED));
    EXPECT_NE(bus_.message().find("no permission"), std::string::npos);
    EXPECT_EQ(bus_.set("private.a", "new"), KELBUS_REFUSED);
    EXPECT_NE(bus_.message().find("no permission"), std::string::npos);
    ASSERT_EQ(chmod("/tmp/kelbus", 0700), 0);
    EXPECT_EQ(bus_.value("private.a"), "value a");
}

} // namespace
} // namespace kelconf::test
