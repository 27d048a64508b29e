// kelconfd at work: requests, events, stops, kills, crowds.
#include "bus/endpoints.h"
#include "daemon/bus_client.h"
#include "daemon/daemon_process.h"
#include "support/device_log.h"
#include "support/files.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>
#include <stdexcept>
#include <thread>

namespace kelconf::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kLive = "/mnt/nand/conf/conf.db";
constexpr const char* kDone = "<?xml version=\"1.0\"?>\n<SET_RESPONSE_ACTION/>\n";

std::string numbered(std::string text, long number) {
    return text.append(std::to_string(number));
}

std::string counters(int count) {
    std::string elements;
    for (int i = 0; i < count; ++i) {
        elements += leaf(numbered("n", i), "int", "0");
    }
    return elements;
}

std::string counterName(int i) {
    return numbered("private.n", i);
}

bool logHas(const LogRecords& records, const std::string& text) {
    return records.console.find(text) != std::string::npos;
}

// A subscriber that is known to be connected: it has seen an announcement.
void awaitSubscription(Subscriber& events) {
    for (int attempt = 0; attempt < 600; ++attempt) {
        set("SET_ACTION_NO_DB", {{"private.state", numbered("s", attempt)}});
        if (events.next(std::chrono::milliseconds{100})) {
            while (events.next(std::chrono::milliseconds{100})) {
            }
            return;
        }
    }
    FAIL() << "no event arrives";
}

TEST(Tour, GetSetEventRestart) {
    resetDevice(treeOf(leaf("name", "string", "front door") + leaf("state", "realtime", "")));
    {
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        EXPECT_EQ(valueOf("private.name"), "front door");
        EXPECT_EQ(valueOf("private.unknown"), "?");
        Subscriber events;
        awaitSubscription(events);
        EXPECT_TRUE(set("SET_ACTION_DIRECT", {{"private.name", "it's &lt;2&gt;"}}));
        EXPECT_EQ(events.next(std::chrono::seconds{60}),
                  "<?xml version=\"1.0\"?>\n<EVENT_ACTION><parameter name=\"private.name\" "
                  "prev_value=\"front door\">it's &lt;2&gt;</parameter></EVENT_ACTION>\n");
        EXPECT_FALSE(set("SET_ACTION", {{"private.unknown", "1"}}));
        EXPECT_EQ(daemon.stop(), 0);
    }
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    EXPECT_EQ(valueOf("private.name"), "it's &lt;2&gt;");
    EXPECT_EQ(valueOf("private.state"), "") << "realtime values are not kept";
}

TEST(Tour, AnswersGroupsAndListings) {
    resetDevice(treeOf(leaf("name", "string", "a") + leaf("other", "string", "b")));
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    const std::string all = "<parameter name=\"private.name\">a</parameter>"
                            "<parameter name=\"private.other\">b</parameter>";
    EXPECT_EQ(Requester{endpoints::kGetAll}.ask("<GET_ALL_ACTION/>"),
              "<?xml version=\"1.0\"?>\n<GET_RESPONSE_ALL_ACTION>" + all +
                  "</GET_RESPONSE_ALL_ACTION>\n");
    EXPECT_EQ(Requester{endpoints::kGetGroup}.ask(
                  "<GET_GROUP_ACTION><parameter name=\"private.\"/></GET_GROUP_ACTION>"),
              "<?xml version=\"1.0\"?>\n<GET_RESPONSE_GROUP_ACTION>" + all +
                  "</GET_RESPONSE_GROUP_ACTION>\n");
}

TEST(Tour, NoTreeNoService) {
    resetDevice("<tree");
    DeviceLog log;
    Daemon daemon;
    EXPECT_FALSE(daemon.awaitReady());
    EXPECT_EQ(daemon.awaitEnd(), 0);
    EXPECT_TRUE(logHas(log.take(), "error: could not parse file "));
}

ino_t inodeOf(const fs::path& path) {
    struct stat info {};
    EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
    return info.st_ino;
}

std::vector<std::pair<fs::path, ino_t>> busFiles() {
    std::vector<std::pair<fs::path, ino_t>> files;
    for (const auto& entry : fs::directory_iterator(endpoints::kDirectory)) {
        files.emplace_back(entry.path(), inodeOf(entry.path()));
    }
    return files;
}

TEST(SecondStart, IsRefusedAndDisturbsNothing) {
    resetDevice(treeOf(leaf("name", "string", "a")));
    Daemon first;
    ASSERT_TRUE(first.awaitReady());
    const auto before = busFiles();
    ASSERT_EQ(before.size(), 10U) << "nine sockets and the lock";
    const std::string database = contentOf(kLive);
    DeviceLog log;
    Daemon second;
    EXPECT_FALSE(second.awaitReady());
    EXPECT_EQ(second.awaitEnd(), 1);
    EXPECT_TRUE(logHas(log.take(), numbered("runs already, as process ", first.process())));
    EXPECT_EQ(busFiles(), before);
    EXPECT_EQ(contentOf(kLive), database);
    EXPECT_TRUE(set("SET_ACTION", {{"private.name", "b"}}));
    EXPECT_EQ(first.stop(), 0);
    Daemon third;
    EXPECT_TRUE(third.awaitReady()) << "the lock ends with its process";
}

TEST(Ground, WhatIsNoDirectoryOfItsOwnIsRefused) {
    resetDevice(treeOf(leaf("name", "string", "a")));
    fs::create_directory("/tmp/elsewhere");
    const std::function<void()> wrong[] = {
        [] { fs::create_directory_symlink("/tmp/elsewhere", "/tmp/kelbus"); },
        [] { writeFile("/tmp/kelbus", "file"); }};
    for (const auto& make : wrong) {
        make();
        DeviceLog log;
        Daemon daemon;
        EXPECT_FALSE(daemon.awaitReady());
        EXPECT_EQ(daemon.awaitEnd(), 1);
        EXPECT_TRUE(logHas(log.take(), "/tmp/kelbus cannot be used"));
        EXPECT_TRUE(fs::is_empty("/tmp/elsewhere"));
        EXPECT_FALSE(exists(kLive)) << "nothing is done on wrong ground";
        fs::remove("/tmp/kelbus");
    }
}

TEST(Ground, NothingIsOpenToEverybody) {
    resetDevice(treeOf(leaf("name", "string", "a") + leaf("admin_passwd", "string", "secret")));
    writeFile("/mnt/backup/conf/conf_backup.db", "an old one");
    fs::permissions("/mnt/backup/conf/conf_backup.db", fs::perms{0666});
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    ASSERT_TRUE(set("SET_ACTION_DIRECT", {{"private.name", "b"}}));
    ASSERT_EQ(daemon.stop(), 0);
    ASSERT_TRUE(exists("/mnt/backup/conf/conf_backup.db"));
    for (const char* directory : {"/mnt/nand/conf", "/mnt/backup/conf", "/tmp/kelbus"}) {
        for (const auto& entry : fs::directory_iterator(directory)) {
            EXPECT_EQ(static_cast<unsigned>(entry.symlink_status().permissions()) & 0077U, 0U)
                << entry.path();
        }
    }
}

// ---- Load ---------------------------------------------------------------------------------------

// One client that sets one name after another to ever higher numbers, as fast as it is answered,
// and remembers the highest number that each name's SET was answered with.
class Load {
  public:
    Load(const char* root, int names)
        : answered_(static_cast<std::size_t>(names), 0), thread_([this, root] { run(root); }) {}
    ~Load() { end(); }
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;
    Load(Load&&) = delete;
    Load& operator=(Load&&) = delete;

    void awaitAnswers(int count) const {
        for (int seen = answers_; seen < count; seen = answers_) {
            answers_.wait(seen);
        }
    }

    // The service has gone: gives up the request that it did not answer.
    const std::vector<int>& end() {
        ended_ = true;
        if (thread_.joinable()) {
            thread_.join();
        }
        return answered_;
    }

  private:
    void run(const char* root) {
        Requester requester{endpoints::kSet};
        for (int number = 1;; ++number) {
            const int name = number % static_cast<int>(answered_.size());
            const auto reply =
                requester.tryToAsk(setRequest(root, {{counterName(name), std::to_string(number)}}),
                                   [this] { return ended_.load(); });
            if (reply != kDone) {
                return;
            }
            answered_[static_cast<std::size_t>(name)] = number;
            ++answers_;
            answers_.notify_all();
        }
    }

    std::vector<int> answered_; // the thread's until it is joined
    std::atomic<int> answers_{0};
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

// A number above the answered one was applied, but its answer did not arrive any more.
void expectKept(const std::vector<int>& answered) {
    for (std::size_t i = 0; i < answered.size(); ++i) {
        const std::string name = counterName(static_cast<int>(i));
        const auto rows = sql(kLive, "SELECT VALUE FROM CONFIG WHERE NAME='" + name + "'");
        ASSERT_EQ(rows.size(), 1U) << name;
        EXPECT_GE(std::stoi(rows[0][0]), answered[i]) << name;
    }
}

// Five seconds are promised; a machine with other work gets more.
constexpr std::chrono::seconds kStopDeadline{20};

class OrderlyStop : public testing::TestWithParam<std::pair<const char*, int>> {};

TEST_P(OrderlyStop, StoresEveryAnsweredSet) {
    const auto [root, signal_number] = GetParam();
    constexpr int kNames = 40;
    resetDevice(treeOf(counters(kNames)));
    for (int round = 0; round < 3; ++round) {
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        Load load{root, kNames};
        load.awaitAnswers(60 + 17 * round);
        const auto begin = std::chrono::steady_clock::now();
        daemon.signal(signal_number);
        EXPECT_EQ(daemon.awaitEnd(), 0);
        EXPECT_LT(std::chrono::steady_clock::now() - begin, kStopDeadline);
        expectKept(load.end());
        EXPECT_EQ(contentOf(kLive), contentOf("/mnt/backup/conf/conf_backup.db"));
        EXPECT_FALSE(exists(std::string{kLive} + "-journal"));
    }
}

INSTANTIATE_TEST_SUITE_P(Signals, OrderlyStop,
                         testing::Values(std::pair{"SET_ACTION", SIGTERM},
                                         std::pair{"SET_ACTION_DIRECT", SIGINT}));

// The moment of a kill inside a pass is what varies; nothing depends on how long anything takes.
class Moments {
  public:
    void wait(unsigned most_microseconds) { usleep(next(most_microseconds)); }
    unsigned next(unsigned most) { return static_cast<unsigned>(random_() % most); }

  private:
    std::mt19937 random_{std::random_device{}()};
};

// Kills the service under load; what it had answered.
std::vector<int> killUnderLoad(Moments& moments, int names) {
    Daemon daemon;
    if (!daemon.awaitReady()) {
        throw std::runtime_error("kelconfd has ended"); // its load would wait for ever
    }
    Load load{"SET_ACTION_DIRECT", names};
    load.awaitAnswers(1 + static_cast<int>(moments.next(8)));
    moments.wait(20000);
    daemon.killNow();
    return load.end();
}

void expectBelievedAtTheNextStart(DeviceLog& log) {
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    EXPECT_EQ(daemon.stop(), 0);
    const LogRecords records = log.take();
    EXPECT_FALSE(logHas(records, "live database damaged"));
    EXPECT_TRUE(logHas(records, "live database sound") ||
                logHas(records, "live database recovered"));
}

TEST(Kill, AtAnyMomentKeepsEveryAnsweredDirectSet) {
    constexpr int kNames = 10;
    constexpr int kRounds = 25;
    resetDevice(treeOf(counters(kNames)));
    Moments moments;
    DeviceLog log;
    for (int round = 0; round < kRounds; ++round) {
        SCOPED_TRACE(round);
        const std::vector<int> answered = killUnderLoad(moments, kNames);
        expectBelievedAtTheNextStart(log);
        expectKept(answered);
    }
}

// ---- Crowds -------------------------------------------------------------------------------------

std::vector<Fd> connectIdle(const char* path, int count) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::strncpy(name.sun_path, path, sizeof name.sun_path - 1);
    std::vector<Fd> connections;
    for (int i = 0; i < count; ++i) {
        Fd connection{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
        if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) != 0) {
            ADD_FAILURE() << "connection " << i << ": " << std::strerror(errno);
            break;
        }
        connections.push_back(std::move(connection));
    }
    return connections;
}

TEST(Crowd, FiveThousandIdleConnectionsDoNotEndTheService) {
    resetDevice(treeOf(leaf("name", "string", "a")));
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    std::vector<Fd> idle = connectIdle("/tmp/kelbus/kelbus_getsock", 5000);
    EXPECT_EQ(valueOf("private.name"), "a") << "with all of them connected";
    EXPECT_TRUE(set("SET_ACTION_DIRECT", {{"private.name", "b"}}));
    idle.clear();
    EXPECT_EQ(valueOf("private.name"), "b") << "with all of them gone";
    EXPECT_EQ(daemon.stop(), 0);
}

} // namespace
} // namespace kelconf::test
