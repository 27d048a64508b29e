// The life of kelconfd: its ground, a second start, its end and its death, and its passwords. What
// a start makes of what is left on flash is in tests/live and tests/powercut.
#include "daemon/bus_client.h"
#include "daemon/daemon_process.h"
#include "paths.h"
#include "support/device_log.h"
#include "support/files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <stdexcept>
#include <thread>

namespace kelconf::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDirect = "SET_ACTION_DIRECT";
const std::string kLive = paths::kLiveDb;
const std::string kBackup = paths::kBackupDb;
const std::string kWord = leaf("word", "string", "default");

bool logHas(const LogRecords& records, const std::string& text) {
    return records.console.find(text) != std::string::npos;
}

// ---- Ground -------------------------------------------------------------------------------------

void expectRefused(int status, const std::string& said) {
    DeviceLog log;
    Daemon daemon;
    EXPECT_FALSE(daemon.awaitReady());
    EXPECT_EQ(daemon.awaitEnd(), status);
    EXPECT_TRUE(logHas(log.take(), said)) << said;
}

TEST(Start, IsRefusedWithoutATreeAndOnWrongGround) {
    resetDevice("<tree");
    expectRefused(0, "error: could not parse file ");
    resetDevice(treeOf(kWord));
    fs::create_directory("/tmp/elsewhere");
    const std::function<void()> wrong[] = {
        [] { fs::create_directory_symlink("/tmp/elsewhere", "/tmp/kelbus"); },
        [] { writeFile("/tmp/kelbus", "file"); }};
    for (const auto& make : wrong) {
        make();
        expectRefused(1, "/tmp/kelbus cannot be used");
        EXPECT_TRUE(fs::is_empty("/tmp/elsewhere"));
        EXPECT_FALSE(exists(kLive)) << "nothing is done on wrong ground";
        fs::remove("/tmp/kelbus");
    }
}

// What stands in the place of a socket cannot be removed by the bind.
TEST(Start, EndsWithoutItsPublisherOrABrokerButNotWithoutALoop) {
    const std::pair<const char*, const char*> sockets[] = {
        {"eventsock", "event socket create failed"},
        {"get_sync_front_end", "get sync front end socket create failed"},
        {"get_sync_back_end", "get sync back end socket create failed"},
        {"set_sync_front_end", "set sync front end socket create failed"},
        {"set_sync_back_end", "set sync back end socket create failed"}};
    for (const auto& [name, said] : sockets) {
        resetDevice(treeOf(kWord));
        fs::create_directories(std::string("/tmp/kelbus/kelbus_") + name);
        expectRefused(0, said);
    }
    resetDevice(treeOf(kWord));
    fs::create_directories("/tmp/kelbus/kelbus_getsock");
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    EXPECT_TRUE(set(kDirect, {{"private.word", "b"}}));
    EXPECT_EQ(daemon.stop(), 0);
}

std::map<fs::path, ino_t> busFiles() {
    std::map<fs::path, ino_t> files;
    for (const auto& entry : fs::directory_iterator(endpoints::kDirectory)) {
        struct stat info {};
        EXPECT_EQ(lstat(entry.path().c_str(), &info), 0);
        files[entry.path()] = info.st_ino;
    }
    return files;
}

TEST(Start, OfASecondIsRefusedAndDisturbsNothing) {
    resetDevice(treeOf(kWord));
    Daemon first;
    ASSERT_TRUE(first.awaitReady());
    const auto before = busFiles();
    ASSERT_EQ(before.size(), 10U) << "nine sockets and the lock";
    const std::string database = contentOf(kLive);
    expectRefused(1, "runs already, as process " + std::to_string(first.process()));
    EXPECT_EQ(busFiles(), before);
    EXPECT_EQ(contentOf(kLive), database);
    EXPECT_TRUE(set("SET_ACTION", {{"private.word", "b"}}));
    EXPECT_EQ(first.stop(), 0);
    Daemon third;
    EXPECT_TRUE(third.awaitReady()) << "the lock ends with its process";
}

TEST(Files, AreNotOpenToEverybody) {
    resetDevice(treeOf(kWord + leaf("admin_passwd", "string", "secret")));
    for (const std::string& open : {kBackup, std::string(paths::kLiveDbSeal)}) {
        writeFile(open, "an old one");
        fs::permissions(open, fs::perms{0666});
    }
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    ASSERT_TRUE(set(kDirect, {{"private.word", "b"}}));
    ASSERT_EQ(daemon.stop(), 0);
    for (const char* directory : {"/mnt/nand/conf", "/mnt/backup/conf", "/tmp/kelbus"}) {
        for (const auto& entry : fs::directory_iterator(directory)) {
            EXPECT_EQ(static_cast<unsigned>(entry.symlink_status().permissions()) & 0077U, 0U)
                << entry.path();
        }
    }
}

// ---- Load ---------------------------------------------------------------------------------------

std::string counterName(int i) {
    return "private.n" + std::to_string(i);
}

std::string counters(int count) {
    std::string elements;
    for (int i = 0; i < count; ++i) {
        elements += leaf("n" + std::to_string(i), "int", "0");
    }
    return elements;
}

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
        const Peer peer{ZMQ_REQ, endpoints::kSet};
        for (int number = 1;; ++number) {
            const int name = number % static_cast<int>(answered_.size());
            peer.send({setRequest(root, {{counterName(name), std::to_string(number)}})});
            Parts reply;
            while ((reply = peer.receive(std::chrono::milliseconds{20})).empty() && !ended_) {
            }
            if (bodyOf(reply) != kSetDone) {
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

TEST_P(OrderlyStop, StoresEveryAnsweredSetAndTakesTheBackup) {
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
        EXPECT_EQ(contentOf(kLive), contentOf(kBackup));
        EXPECT_FALSE(exists(kLive + "-journal"));
    }
}

INSTANTIATE_TEST_SUITE_P(Signals, OrderlyStop,
                         testing::Values(std::pair{"SET_ACTION", SIGTERM},
                                         std::pair{kDirect, SIGINT}));

// The moment of a kill inside a pass is what varies; nothing depends on how long anything takes.
std::vector<int> killUnderLoad(std::mt19937& random, int names) {
    Daemon daemon;
    if (!daemon.awaitReady()) {
        throw std::runtime_error("kelconfd has ended"); // its load would wait for ever
    }
    Load load{kDirect, names};
    load.awaitAnswers(1 + static_cast<int>(random() % 8));
    usleep(static_cast<useconds_t>(random() % 20000));
    daemon.killNow();
    return load.end();
}

TEST(Kill, AtAnyMomentKeepsEveryAnsweredDirectSet) {
    constexpr int kNames = 10;
    resetDevice(treeOf(counters(kNames)));
    std::mt19937 random{std::random_device{}()};
    DeviceLog log;
    for (int round = 0; round < 25; ++round) {
        SCOPED_TRACE(round);
        const std::vector<int> answered = killUnderLoad(random, kNames);
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        EXPECT_EQ(daemon.stop(), 0);
        const LogRecords records = log.take();
        EXPECT_FALSE(logHas(records, "live database damaged"));
        EXPECT_TRUE(logHas(records, "live database sound") ||
                    logHas(records, "live database recovered"));
        expectKept(answered);
    }
}

// ---- Passwords ----------------------------------------------------------------------------------

const std::string kPassword = leaf("admin_passwd", "string", "factory");
const std::string kSecond = leaf("user_password", "string", "later");

std::string switchAt(const std::string& value) {
    return leaf("encrypt_campass", "int", value);
}

void expectAfterStart(const std::string& elements, const std::vector<Parameter>& expected,
                      const std::vector<Parameter>& to_set) {
    writeFile(paths::kNeutralTree, treeOf(elements));
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    for (const auto& [name, value] : expected) {
        EXPECT_EQ(valueOf(name), value) << name;
    }
    EXPECT_TRUE(set(kDirect, to_set));
    EXPECT_EQ(daemon.stop(), 0);
}

std::string storedPassword() {
    return sql(kLive, "SELECT VALUE FROM CONFIG WHERE NAME='private.admin_passwd'")[0][0];
}

class PasswordSwitch : public testing::TestWithParam<const char*> {};

TEST_P(PasswordSwitch, DoesNotDecideHowPasswordsRead) {
    resetDevice("");
    const std::string tree = kPassword + switchAt(GetParam());
    expectAfterStart(tree, {{"private.admin_passwd", "factory"}}, {{"private.admin_passwd", "me"}});
    EXPECT_NE(storedPassword(), "me");
    expectAfterStart(tree + kSecond,
                     {{"private.admin_passwd", "me"}, {"private.user_password", "later"}},
                     {{"private.admin_passwd", "cut=off"}});
    expectAfterStart(tree + kSecond,
                     {{"private.admin_passwd", "cut"}, {"private.user_password", "later"}},
                     {{"private.encrypt_campass", GetParam()}, {"private.admin_passwd", "me"}});
    for (int start = 0; start < 2; ++start) {
        expectAfterStart(tree, {{"private.admin_passwd", "me"}}, {});
    }
}

INSTANTIATE_TEST_SUITE_P(Values, PasswordSwitch, testing::Values("0", "1", "", "00"));

TEST(Passwords, StayPlainWithoutTheSwitchAndAreConvertedWithIt) {
    resetDevice("");
    expectAfterStart(kPassword, {{"private.admin_passwd", "factory"}},
                     {{"private.admin_passwd", "me"}});
    EXPECT_EQ(storedPassword(), "me");
    for (int start = 0; start < 2; ++start) {
        expectAfterStart(kPassword + switchAt("1"), {{"private.admin_passwd", "me"}}, {});
    }
}

} // namespace
} // namespace kelconf::test
