// Starts of kelconfd whose storage fails, in a device root with a small flash: every call that
// changes something killed and failed one by one; the last reads, which load the values; a flash
// that takes nothing; a full one.
#include "daemon/bus_client.h"
#include "daemon/daemon_process.h"
#include "paths.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <functional>
#include <set>
#include <sstream>

namespace kelconf::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDirectories[] = {"/mnt/nand/conf", "/mnt/backup/conf"};
const std::string kSaved = "/tmp/saved";

void save() {
    for (const char* directory : kDirectories) {
        fs::create_directories(fs::path{kSaved + directory}.parent_path());
        fs::copy(directory, kSaved + directory, fs::copy_options::recursive);
    }
}

void restore() {
    for (const char* directory : kDirectories) {
        fs::remove_all(directory);
        fs::copy(kSaved + directory, directory, fs::copy_options::recursive);
    }
}

// A live file that is newer than its backup, with the journal of a write that was cut short after
// its first pages went in; names to add, passwords to scramble.
void prepare() {
    const std::string leaves =
        leaf("word", "string", "default") + leaf("admin_passwd", "text", "factory");
    resetDevice(treeOf(leaves));
    runOnce({{"private.admin_passwd", "secret"}});
    {
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        ASSERT_TRUE(set("SET_ACTION_DIRECT", {{"private.word", "kept too"}}));
        daemon.killNow();
    }
    const pid_t writer = fork();
    if (writer == 0) {
        sqlite3* database = nullptr;
        sqlite3_open(paths::kLiveDb, &database);
        sqlite3_exec(database,
                     "PRAGMA cache_size=1; BEGIN; UPDATE CONFIG SET VALUE=hex(zeroblob(90000))",
                     nullptr, nullptr, nullptr);
        kill(getpid(), SIGKILL);
    }
    waitpid(writer, nullptr, 0);
    ASSERT_TRUE(exists(paths::kLiveDbJournal));
    writeFile(paths::kNeutralTree, treeOf(leaves + leaf("encrypt_campass", "int", "0") +
                                          leaf("user_password", "text", "later")));
}

std::string fault(const char* action, long number, int error) {
    return std::string{action} + " " + std::to_string(number) + " " + std::to_string(error);
}

// Each call that changes something before the daemon is ready is the last, or fails; each of the
// last reads of the live file fails.
std::vector<std::string> settings() {
    std::vector<std::string> all;
    std::vector<std::string> environment = faults("fail 0 0");
    environment.emplace_back("KELCONF_FAULT_TRACE=/tmp/trace");
    const Daemon daemon{environment};
    EXPECT_TRUE(daemon.awaitReady());
    const std::set<std::string> kinds{"create", "write", "truncate", "remove", "sync"};
    std::istringstream lines(readFile("/tmp/trace"));
    long number = 0;
    std::vector<std::string> reads;
    for (std::string kind, rest; lines >> number >> kind && std::getline(lines, rest);) {
        if (kinds.contains(kind)) {
            all.push_back(fault("kill-after", number, 0));
            all.push_back(fault("fail", number, number % 2 == 0 ? ENOSPC : EIO));
        }
        if (kind == "read" && rest.ends_with("/conf.db")) {
            reads.push_back(fault("fail", number, EIO));
        }
    }
    EXPECT_GT(all.size(), 60U);
    constexpr std::ptrdiff_t kLastReads = 24;
    all.insert(all.end(), reads.end() - std::min(kLastReads, std::ssize(reads)), reads.end());
    return all;
}

void expectValues(const Daemon& daemon) {
    ASSERT_TRUE(daemon.awaitReady());
    EXPECT_EQ(valueOf("private.word"), "kept too");
    EXPECT_EQ(valueOf("private.admin_passwd"), "secret");
    EXPECT_EQ(valueOf("private.user_password"), "later");
}

TEST(Start, LosesNothingWhicheverCallIsTheLastOrFails) {
    ASSERT_NO_FATAL_FAILURE(prepare());
    save();
    std::vector<std::string> all = settings();
    for (const int error : {ENOSPC, EROFS, EIO}) {
        all.push_back(fault("fail-on", 1, error) + " modify");
    }
    for (const std::string& setting : all) {
        SCOPED_TRACE(setting);
        restore();
        Daemon faulty{faults(setting)};
        if (setting.starts_with("kill")) {
            faulty.awaitReady(); // killed before, or by a later call
            faulty.killNow();
        } else {
            ASSERT_NO_FATAL_FAILURE(expectValues(faulty));
            EXPECT_EQ(faulty.stop(), 0);
            const bool changed = std::system("diff -rq /mnt /tmp/saved/mnt >/dev/null") != 0;
            EXPECT_NE(changed, setting.starts_with("fail-on"));
        }
        DeviceLog log;
        Daemon daemon;
        ASSERT_NO_FATAL_FAILURE(expectValues(daemon));
        EXPECT_EQ(daemon.stop(), 0);
        EXPECT_EQ(log.take().console.find("damaged"), std::string::npos);
        EXPECT_EQ(storedIn(paths::kLiveDb, "private.admin_passwd"), "NigmNSg3");
        EXPECT_EQ(storedIn(paths::kLiveDb, "private.encrypt_campass"), "1");
    }
}

// ---- A full flash -------------------------------------------------------------------------------

constexpr const char* kBallast = "/mnt/nand/ballast";

void takeAllRoom() {
    struct statvfs info {};
    ASSERT_EQ(statvfs("/mnt/nand", &info), 0);
    const Fd file{open(kBallast, O_WRONLY | O_CREAT, 0600)};
    ASSERT_EQ(posix_fallocate(file.get(), 0, static_cast<off_t>(info.f_bfree * info.f_bsize)), 0);
    ASSERT_THROW(writeFile("/mnt/nand/more", "x"), std::runtime_error) << "not full";
    fs::remove("/mnt/nand/more");
}

TEST(FullFlash, IsServedFromMemoryAndGetsItsFileWhenThereIsRoom) {
    const std::string word = leaf("word", "string", "default");
    const auto remove = [](const char* path) { return [=] { fs::remove(path); }; };
    struct {
        std::function<void()> happen; // to a flash that holds "stored", backed up, and is full then
        const char* said;
        const char* word; // as the service then starts with it
    } const cases[] = {
        {[] {}, "defaults in memory only", "stored"}, // sound, but no room for the new name
        {remove(paths::kLiveDb), "cannot be replaced, serving its backup", "stored"},
        {[] { writeFile(paths::kLiveDb, std::string(fs::file_size(paths::kLiveDb), 'x')); },
         "live database taken from the backup", "stored"},
        {[] { resetDevice(); }, "no live database can be made", "default"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.said);
        fs::remove(kBallast);
        resetDevice(treeOf(word));
        runOnce({{"private.word", "stored"}});
        c.happen();
        writeFile(paths::kNeutralTree, treeOf(word + leaf("later", "enum", "new")));
        const std::string backup = readFile(paths::kBackupDb);
        takeAllRoom();
        DeviceLog log;
        runOnce();
        EXPECT_NE(log.take().console.find(c.said), std::string::npos);
        EXPECT_EQ(readFile(paths::kBackupDb), backup) << "nothing worse in its place";
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        EXPECT_EQ(valueOf("private.word"), c.word);
        EXPECT_EQ(valueOf("private.later"), "new");
        EXPECT_TRUE(set("SET_ACTION_NO_DB", {{"private.word", "never to be stored"}}));
        fs::remove(kBallast);
        loggedUntil(log, "live database made anew from memory");
        EXPECT_EQ(daemon.stop(), 0);
        EXPECT_EQ(sql(paths::kLiveDb, "SELECT NAME,VALUE,TYPE FROM CONFIG ORDER BY NAME"),
                  (SqlRows{{"private.later", "new", "enum"}, {"private.word", c.word, "string"}}));
        EXPECT_EQ(readFile(paths::kBackupDb), readFile(paths::kLiveDb));
    }
}

} // namespace
} // namespace kelconf::test
