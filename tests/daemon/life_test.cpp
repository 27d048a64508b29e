// The life of kelconfd: its ground, a second start, its end and its death. What a start makes of
// what is left on flash is in tests/live and tools/powercut.
#include "daemon/bus_client.h"
#include "daemon/daemon_process.h"
#include "daemon/notify.h"
#include "daemon/runtime_dir.h"
#include "db/sqlite_handle.h"
#include "paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <map>
#include <random>
#include <regex>

namespace kelconf::test {
namespace {

namespace fs = std::filesystem;

const std::string kWord = leaf("word", "string", "default");

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// ---- Ground -------------------------------------------------------------------------------------

unsigned modeOf(const std::string& path) {
    return static_cast<unsigned>(fs::symlink_status(path).permissions());
}

TEST(RuntimeDirectory, IsClosedToOthersWrites) {
    const char* path = "/tmp/ground";
    const mode_t mask = umask(0);
    ASSERT_TRUE(openRuntimeDirectory(path, geteuid()));
    EXPECT_EQ(modeOf(path), 0755U) << "made";
    const std::pair<unsigned, unsigned> found_and_left[] = {
        {0700, 0700}, {01777, 01755}, {0770, 0750}, {0777, 0755}};
    for (const auto& [found, left] : found_and_left) {
        fs::permissions(path, fs::perms{found});
        DeviceLog log;
        EXPECT_FALSE(openRuntimeDirectory(path, geteuid() + 1));
        EXPECT_EQ(modeOf(path), found) << "it is not ours to change";
        EXPECT_TRUE(has(log.take().console, "belongs to another user"));
        EXPECT_TRUE(openRuntimeDirectory(path, geteuid()));
        EXPECT_EQ(modeOf(path), left) << std::oct << found;
    }
    umask(mask);
}

// At a path it is what all tests of the daemon wait for.
TEST(Notification, ArrivesAsOneDatagramOrIsNoDanger) {
    const Fd manager = listenAt("@kelconf-test-manager");
    const std::pair<std::string, Notified> cases[] = {
        {"@kelconf-test-manager", Notified::kSent},
        {"", Notified::kNobody},
        {"relative", Notified::kFailed},
        {"/tmp/nobody-there", Notified::kFailed},
        {"/" + std::string(200, 'x'), Notified::kFailed},
        {std::string(108, '@'), Notified::kFailed}};
    for (const auto& [address, result] : cases) {
        setenv("NOTIFY_SOCKET", address.c_str(), 1);
        EXPECT_EQ(notifyManager(kNotifyReady), result) << address;
        EXPECT_EQ(received(manager), result == Notified::kSent ? "READY=1" : "");
    }
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(notifyManager(kNotifyReady), Notified::kNobody);
}

void expectRefused(int status, const std::string& said) {
    DeviceLog log;
    Daemon daemon;
    EXPECT_FALSE(daemon.awaitReady());
    EXPECT_EQ(daemon.awaitEnd(), status);
    EXPECT_TRUE(has(log.take().console, said)) << said;
}

// A link, or a directory: what stands in the place of a socket cannot be removed by the bind.
TEST(Start, IsRefusedByWhatStandsInItsWayButNotOfALoop) {
    struct {
        const char* path;
        const char* target;
        int status;
        const char* said;
    } const cases[] = {
        {"/tmp/kelbus", "/tmp/elsewhere", 1, "/tmp/kelbus cannot be used"},
        {"kelconfd.lock", "/tmp/elsewhere/file", 1, "cannot open the lock file"},
        {paths::kNeutralTree, nullptr, 0, "error: could not parse file "},
        {"kelbus_eventsock", nullptr, 0, "event socket create failed"},
        {"kelbus_get_sync_front_end", nullptr, 0, "get sync front end socket create failed"},
        {"kelbus_get_sync_back_end", nullptr, 0, "get sync back end socket create failed"},
        {"kelbus_set_sync_front_end", nullptr, 0, "set sync front end socket create failed"},
        {"kelbus_set_sync_back_end", nullptr, 0, "set sync back end socket create failed"}};
    fs::create_directory("/tmp/elsewhere");
    for (const auto& c : cases) {
        resetDevice(treeOf(kWord));
        const fs::path path = fs::path{"/tmp/kelbus"} / c.path;
        fs::remove(path);
        fs::create_directories(c.target == nullptr ? path : path.parent_path());
        c.target == nullptr ? void() : fs::create_symlink(c.target, path);
        expectRefused(c.status, c.said);
        EXPECT_TRUE(fs::is_empty("/tmp/elsewhere"));
        EXPECT_TRUE(c.status == 0 || !exists(paths::kLiveDb)) << "nothing is done on wrong ground";
    }
    resetDevice(treeOf(kWord));
    fs::create_directories("/tmp/kelbus/kelbus_getsock");
    runOnce({{"private.word", "without this loop"}});
}

TEST(Start, OfASecondIsRefusedAndDisturbsNothing) {
    resetDevice(treeOf(kWord));
    Daemon first;
    ASSERT_TRUE(first.awaitReady());
    EXPECT_EQ(std::distance(fs::directory_iterator{"/tmp/kelbus"}, {}), 11)
        << "sockets, lock and view";
    const auto bound = fs::last_write_time("/tmp/kelbus");
    const std::string database = readFile(paths::kLiveDb);
    expectRefused(1, "runs already, as process " + std::to_string(first.process()));
    EXPECT_EQ(fs::last_write_time("/tmp/kelbus"), bound) << "no socket was made anew";
    EXPECT_EQ(readFile(paths::kLiveDb), database);
    EXPECT_TRUE(set("SET_ACTION", {{"private.word", "b"}}));
    EXPECT_EQ(first.stop(), 0);
    runOnce(); // the lock ends with its process
}

TEST(Watchdog, IsFedByAServiceThatAnswersAndNotByOneThatIsStopped) {
    resetDevice(treeOf(kWord));
    Daemon daemon{{"WATCHDOG_USEC=100000"}};
    ASSERT_TRUE(daemon.awaitReady());
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(daemon.awaitWord(), "WATCHDOG=1");
    }
    daemon.signal(SIGSTOP);
    siginfo_t stopped{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(daemon.process()), &stopped, WSTOPPED), 0);
    while (!daemon.saidNothing()) {
    }
    daemon.signal(SIGCONT);
    EXPECT_EQ(daemon.awaitWord(), "WATCHDOG=1");
    EXPECT_EQ(daemon.stop(), 0) << "also while it is fed";
}

// Of a group that this process has no right to.
TEST(Files, AreNotOpenToEverybody) {
    const std::string groups = readFile("/etc/group");
    writeFile("/etc/group", "kelbus:x:54321:\n");
    resetDevice(treeOf(kWord));
    for (const char* open : {paths::kBackupDb, paths::kLiveDbSeal}) {
        writeFile(open, "an old one");
        fs::permissions(open, fs::perms{0666});
    }
    runOnce({{"private.word", "b"}});
    for (const char* directory : {"/mnt/nand/conf", "/mnt/backup/conf", "/tmp/kelbus"}) {
        for (const auto& entry : fs::directory_iterator(directory)) {
            EXPECT_EQ(modeOf(entry.path()) & 0077U, 0U) << entry.path();
        }
    }
    writeFile("/etc/group", groups);
}

// ---- Ends ---------------------------------------------------------------------------------------

using Answered = std::map<std::string, int>;

// Sets one name after the other to ever higher numbers; so many are answered, and one more is not.
// The highest number of each that was.
Answered load(const Peer& peer, const char* root, int count) {
    Answered answered;
    for (int number = 1;; ++number) {
        const std::string name = "private.n" + std::to_string(number % 10);
        peer.send({setRequest(root, {{name, std::to_string(number)}})});
        if (number > count) {
            return answered;
        }
        EXPECT_EQ(bodyOf(peer.receive()), kSetDone);
        answered[name] = number;
    }
}

// The moment inside a pass is what varies; nothing depends on how long anything takes.
TEST(End, AtAnyMomentKeepsEveryAnsweredSet) {
    std::string elements;
    for (int i = 0; i < 10; ++i) {
        elements += leaf("n" + std::to_string(i), "int", "0");
    }
    resetDevice(treeOf(elements));
    std::mt19937 random{std::random_device{}()};
    const auto pick = [&](unsigned n) { return static_cast<int>(random() % n); };
    DeviceLog log;
    for (int round = 0; round < 36; ++round) {
        const int number = round % 6 == 0 ? SIGTERM : round % 6 == 3 ? SIGINT : SIGKILL;
        SCOPED_TRACE(number);
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        EXPECT_TRUE(has(log.take().console, "live database ")) << "sound or recovered";
        const Peer peer{ZMQ_REQ, endpoints::kSet};
        const bool killed = number == SIGKILL;
        const Answered answered =
            load(peer, killed || round % 2 != 0 ? "SET_ACTION_DIRECT" : "SET_ACTION",
                 killed ? 1 + pick(8) : 80);
        usleep(static_cast<useconds_t>(pick(round % 2 == 0 ? 20000 : 2000)));
        daemon.signal(number);
        EXPECT_EQ(daemon.awaitEnd(), killed ? 128 + SIGKILL : 0);
        if (killed) {
            runOnce();
        }
        EXPECT_FALSE(has(log.take().console, "damaged"));
        for (const auto& [name, least] : answered) {
            EXPECT_GE(std::stoi(storedIn(paths::kLiveDb, name)), least) << name;
        }
        EXPECT_EQ(readFile(paths::kLiveDb), readFile(paths::kBackupDb));
        EXPECT_FALSE(exists(paths::kLiveDbJournal));
    }
}

// ---- Locks of other processes -------------------------------------------------------------------

// The SIGTERM comes when the first update was refused: none of the ten attempts, a second apart, is
// waited for. The upkeep before the end makes one more.
void expectNoWaiting(Daemon& daemon, DeviceLog& log) {
    std::string logged = loggedUntil(log, "SQL error: database is locked");
    EXPECT_EQ(daemon.stop(), 0);
    logged += log.take().console;
    const std::regex refusal{"SQL error: database is locked"};
    EXPECT_LT(std::distance(std::sregex_iterator{logged.begin(), logged.end(), refusal}, {}), 8);
}

TEST(Stop, DoesNotWaitForLocksOfOtherProcesses) {
    resetDevice(treeOf(leaf("admin_passwd", "text", "a") + leaf("encrypt_campass", "int", "0")));
    DeviceLog log;
    {
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        const OpenedDatabase other = openDatabase(paths::kLiveDb);
        ASSERT_TRUE(execute(other.handle.get(), "BEGIN EXCLUSIVE"));
        EXPECT_TRUE(set("SET_ACTION", {{"private.admin_passwd", "b"}}));
        expectNoWaiting(daemon, log);
    }
    // A start that is to scramble passwords, which the mark of the file says are plain.
    sql(paths::kLiveDb, "PRAGMA user_version = 10; UPDATE CONFIG SET VALUE='0' WHERE "
                        "NAME='private.encrypt_campass'");
    const OpenedDatabase other = openDatabase(paths::kLiveDb);
    const Statement reader = prepare(other.handle.get(), "SELECT * FROM CONFIG");
    ASSERT_EQ(sqlite3_step(reader.get()), SQLITE_ROW);
    Daemon daemon;
    expectNoWaiting(daemon, log);
}

} // namespace
} // namespace kelconf::test
