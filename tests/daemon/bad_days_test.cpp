// kelconfd on bad days: locks of other processes, a file that vanishes under the service.
#include "daemon/bus_client.h"
#include "daemon/daemon_process.h"
#include "paths.h"
#include "support/device_log.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <filesystem>

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

// A stop does not wait for the ten attempts.
TEST(LockedDatabase, DoesNotHoldUpTheStop) {
    prepare(kWord, {});
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    const Lock lock{kWriter};
    DeviceLog log;
    EXPECT_TRUE(set("SET_ACTION", {{"private.word", "a"}}));
    std::string logged = loggedUntil(log, "SQL error: database is locked");
    EXPECT_EQ(daemon.stop(), 0);
    logged += log.take().console;
    EXPECT_LT(count(logged, "SQL error: database is locked"), 8) << logged;
    EXPECT_EQ(count(logged, "1 changes could not be stored"), 1);
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

// ---- Files under the service ----

TEST(LiveFile, ThatIsDeletedIsMadeAnewByTheUpkeep) {
    prepare(kWord, {{"private.word", "it's"}});
    DeviceLog log;
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    fs::remove(paths::kLiveDb);
    loggedUntil(log, "live database made anew from memory");
    EXPECT_EQ(stored("private.word"), "it's");
}

} // namespace
} // namespace kelconf::test
