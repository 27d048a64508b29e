// kelconfd on bad days: locks of other processes, files that vanish or rot under the service,
// kills between two writes.
#include "daemon/bus_client.h"
#include "daemon/daemon_process.h"
#include "paths.h"
#include "support/device_log.h"
#include "support/files.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <functional>

namespace kelconf::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDirect = "SET_ACTION_DIRECT";
const std::string kWord = leaf("word", "string", "default");
const std::string kPassword = leaf("admin_passwd", "text", "factory");
const std::string kSwitch = leaf("encrypt_campass", "int", "0");

// The service has run, holds these values, and has been stopped.
void prepare(const std::string& elements, const std::vector<Parameter>& values) {
    resetDevice(treeOf(elements));
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    ASSERT_TRUE(set(kDirect, values));
    ASSERT_EQ(daemon.stop(), 0);
}

std::string stored(const std::string& name) {
    const auto rows = sql(paths::kLiveDb, "SELECT VALUE FROM CONFIG WHERE NAME='" + name + "'");
    return rows.empty() ? "(none)" : rows[0][0];
}

int count(const std::string& text, const std::string& part) {
    int found = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) {
        ++found;
    }
    return found;
}

// A lock of this process, which is another one to the daemon.
class Lock {
  public:
    explicit Lock(const char* begin) {
        sqlite3_open(paths::kLiveDb, &database_);
        const int status = sqlite3_exec(database_, begin, nullptr, nullptr, nullptr);
        EXPECT_EQ(status, SQLITE_OK) << sqlite3_errmsg(database_);
    }
    ~Lock() { release(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;
    Lock(Lock&&) = delete;
    Lock& operator=(Lock&&) = delete;
    void release() { sqlite3_close(std::exchange(database_, nullptr)); }

  private:
    sqlite3* database_ = nullptr;
};

constexpr const char* kWriter = "BEGIN EXCLUSIVE";
constexpr const char* kReader = "BEGIN; SELECT * FROM CONFIG";

TEST(LockedDatabase, IsServedFromItsSealedCopyAndWrittenLater) {
    prepare(kWord, {{"private.word", "newer"}});
    Lock lock{kWriter};
    DeviceLog log;
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    EXPECT_EQ(valueOf("private.word"), "newer");
    EXPECT_TRUE(set("SET_ACTION", {{"private.word", "newest"}}));
    EXPECT_FALSE(exists("/mnt/nand/conf/conf.db.new"));
    loggedUntil(log, "SQL error: database is locked");
    lock.release();
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(stored("private.word"), "newest");
    EXPECT_EQ(contentOf(paths::kBackupDb), contentOf(paths::kLiveDb));
}

TEST(LockedDatabase, HoldsUpOneRowForTenAttemptsAndTheNextOnesForOne) {
    prepare(kWord + kPassword, {});
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    Lock lock{kReader}; // keeps the commit, not the UPDATE, from going through
    DeviceLog log;
    EXPECT_TRUE(set("SET_ACTION", {{"private.word", "a"}, {"private.admin_passwd", "b"}}));
    EXPECT_TRUE(set("SET_ACTION_NO_DB", {{"private.word", "passing"}}));
    lock.release();
    loggedUntil(log, "changes that had failed are stored");
    EXPECT_EQ(stored("private.word"), "a") << "not what was never to be stored";
    EXPECT_EQ(stored("private.admin_passwd"), "b");
    EXPECT_EQ(valueOf("private.word"), "passing");
}

TEST(Stop, DuringTheStartEndsItsRetries) {
    prepare(kPassword, {});
    writeFile(paths::kNeutralTree, treeOf(kPassword + kSwitch));
    {
        Daemon daemon; // adds the switch
        ASSERT_TRUE(daemon.awaitReady());
        daemon.stop();
    }
    sql(paths::kLiveDb, "PRAGMA user_version = 0; UPDATE CONFIG SET VALUE='0' WHERE "
                        "NAME='private.encrypt_campass'");
    const Lock lock{kReader};
    DeviceLog log;
    Daemon daemon;
    std::string logged = loggedUntil(log, "SQL error: database is locked");
    EXPECT_EQ(daemon.stop(), 0);
    logged += log.take().console;
    EXPECT_LT(count(logged, "SQL error: database is locked"), 10) << logged;
}

// ---- What another process does to the files while the service runs ----

struct Loss {
    const char* name;
    std::function<void()> happen;
};

void PrintTo(const Loss& loss, std::ostream* out) {
    *out << loss.name;
}

class LiveFileLost : public testing::TestWithParam<Loss> {};

TEST_P(LiveFileLost, IsMadeAnewFromMemory) {
    const std::string elements = kWord + kPassword + kSwitch + leaf("state", "realtime", "");
    prepare(elements, {{"private.word", "it's"}, {"private.admin_passwd", "secret"}});
    const char* rows = "SELECT NAME,VALUE,TYPE FROM CONFIG ORDER BY NAME";
    const SqlRows before = sql(paths::kLiveDb, rows);
    DeviceLog log;
    {
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        EXPECT_TRUE(set("SET_ACTION", {{"private.state", "up"}}));
        GetParam().happen();
        loggedUntil(log, "live database made anew from memory");
        EXPECT_EQ(valueOf("private.state"), "up");
        EXPECT_TRUE(set(kDirect, {{"private.word", "it's"}}));
        EXPECT_EQ(daemon.stop(), 0);
    }
    EXPECT_EQ(sql(paths::kLiveDb, rows), before) << "types and scrambled passwords included";
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    loggedUntil(log, "live database sound");
    EXPECT_EQ(valueOf("private.admin_passwd"), "secret");
}

INSTANTIATE_TEST_SUITE_P(
    Ways, LiveFileLost,
    testing::Values(Loss{"deleted", [] { fs::remove(paths::kLiveDb); }},
                    Loss{"overwritten, which a change finds out", [] {
                             writeFile(paths::kLiveDb, std::string(12288, 'x'));
                             EXPECT_TRUE(set("SET_ACTION", {{"private.word", "changed"}}));
                         }}));

TEST(Backup, OfAKilledServiceIsBroughtUpToDate) {
    prepare(kWord, {{"private.word", "old"}});
    {
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        ASSERT_TRUE(set(kDirect, {{"private.word", "new"}}));
        daemon.killNow();
    }
    writeFile("/mnt/nand/conf/conf.db.new", "left by a start that was cut short");
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(contentOf(paths::kBackupDb), contentOf(paths::kLiveDb));
    EXPECT_FALSE(exists("/mnt/nand/conf/conf.db.new"));
}

TEST(Backup, WithoutADirectoryIsGivenUp) {
    prepare(kWord, {});
    fs::remove_all("/mnt/backup/conf");
    DeviceLog log;
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    EXPECT_TRUE(set(kDirect, {{"private.word", "a"}}));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_NE(log.take().console.find("create hash failed"), std::string::npos);
    EXPECT_EQ(stored("private.word"), "a");
}

// A writer that is killed in its transaction, after its first pages went into the file.
void leaveHotJournal() {
    const pid_t writer = fork();
    if (writer == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        sqlite3* database = nullptr;
        sqlite3_open(paths::kLiveDb, &database);
        sqlite3_exec(database,
                     "PRAGMA cache_size=1; BEGIN; UPDATE CONFIG SET VALUE=hex(zeroblob(9000));",
                     nullptr, nullptr, nullptr);
        kill(getpid(), SIGKILL);
    }
    waitpid(writer, nullptr, 0);
}

TEST(HotJournal, IsRolledBackBeforeTheFileIsJudged) {
    std::string elements = kWord;
    for (int i = 0; i < 200; ++i) {
        elements += leaf("filler" + std::to_string(i), "string", std::string(50, 'f'));
    }
    prepare(elements, {{"private.word", "kept"}});
    const std::string before = contentOf(paths::kLiveDb);
    leaveHotJournal();
    ASSERT_NE(contentOf(paths::kLiveDb), before);
    ASSERT_TRUE(exists(paths::kLiveDbJournal));
    DeviceLog log;
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    EXPECT_NE(log.take().console.find("live database sound"), std::string::npos);
    EXPECT_EQ(valueOf("private.word"), "kept");
    EXPECT_EQ(valueOf("private.filler7"), std::string(50, 'f'));
}

} // namespace
} // namespace kelconf::test
