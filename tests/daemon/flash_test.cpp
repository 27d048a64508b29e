// kelconfd on a flash that is full, or read-only, from before its start or from some moment on.
// Each group runs in a device root with such a flash.
#include "daemon/bus_client.h"
#include "daemon/daemon_process.h"
#include "files/md5_sidecar.h"
#include "paths.h"
#include "support/device_log.h"
#include "support/files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <filesystem>
#include <functional>

namespace kelconf::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kBallast = "/mnt/nand/ballast";
const std::string kWord = leaf("word", "string", "default");
const std::string kLater = leaf("later", "enum", "new");
const char* const kRows = "SELECT NAME,VALUE,TYPE FROM CONFIG ORDER BY NAME";

void takeAllRoom() {
    struct statvfs info {};
    ASSERT_EQ(statvfs("/mnt/nand", &info), 0);
    const Fd file{open(kBallast, O_WRONLY | O_CREAT, 0600)};
    ASSERT_EQ(posix_fallocate(file.get(), 0, static_cast<off_t>(info.f_bfree * info.f_bsize)), 0);
    ASSERT_THROW(writeFile("/mnt/nand/more", "x"), std::runtime_error) << "not full";
    fs::remove("/mnt/nand/more");
}

void runOnce(const std::vector<Parameter>& values) {
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    ASSERT_TRUE(set("SET_ACTION_DIRECT", values));
    ASSERT_EQ(daemon.stop(), 0);
}

struct FullCase {
    const char* name;
    std::function<void()> happen; // to a flash that holds "stored", backed up, and is full then
    const char* said;
    const char* word;  // as the service then starts with it
    const char* later; // of the parameter that a newer tree adds
};

void PrintTo(const FullCase& c, std::ostream* out) {
    *out << c.name;
}

class FullFlash : public testing::TestWithParam<FullCase> {};

TEST_P(FullFlash, ServesFromMemoryAndStoresWhenThereIsRoom) {
    fs::remove(kBallast);
    resetDevice(treeOf(kWord));
    ASSERT_NO_FATAL_FAILURE(runOnce({{"private.word", "stored"}}));
    const std::string backup = contentOf(paths::kBackupDb);
    writeFile(paths::kNeutralTree, treeOf(kWord + kLater));
    GetParam().happen();
    takeAllRoom();
    DeviceLog log;
    {
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        EXPECT_EQ(valueOf("private.word"), GetParam().word);
        EXPECT_EQ(valueOf("private.later"), GetParam().later);
        EXPECT_EQ(daemon.stop(), 0);
        EXPECT_NE(log.take().console.find(GetParam().said), std::string::npos);
        if (exists(paths::kBackupDb)) {
            EXPECT_EQ(contentOf(paths::kBackupDb), backup) << "nothing worse in its place";
        }
    }
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    EXPECT_TRUE(set("SET_ACTION_NO_DB", {{"private.word", "changed"}, {"private.later", "too"}}));
    fs::remove(kBallast);
    loggedUntil(log, "live database made anew from memory");
    EXPECT_EQ(sql(paths::kLiveDb, kRows), (SqlRows{{"private.later", GetParam().later, "enum"},
                                                   {"private.word", GetParam().word, "string"}}))
        << "not what was never to be stored";
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(contentOf(paths::kBackupDb), contentOf(paths::kLiveDb));
}

INSTANTIATE_TEST_SUITE_P(
    AtStart, FullFlash,
    testing::Values(FullCase{"sound, but no room for new names", [] {}, "defaults in memory only",
                             "stored", "new"},
                    FullCase{"no room for the backup", [] { fs::remove(paths::kLiveDb); },
                             "cannot be replaced, serving its backup", "stored", "new"},
                    FullCase{"nothing at all",
                             [] {
                                 resetDevice();
                                 writeFile(paths::kNeutralTree, treeOf(kWord + kLater));
                             },
                             "no live database can be made", "default", "new"}));

TEST(FullFlashLater, GetsWhatItCouldNotTakeWhenThereIsRoomAgain) {
    fs::remove(kBallast);
    resetDevice(treeOf(kWord + kLater));
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    ASSERT_TRUE(set("SET_ACTION_DIRECT", {{"private.word", "stored"}}));
    takeAllRoom();
    DeviceLog log;
    EXPECT_TRUE(set("SET_ACTION", {{"private.word", "it's"}, {"private.later", "too"}}));
    loggedUntil(log, "disk is full"); // the pass has begun
    EXPECT_EQ(valueOf("private.word"), "it's") << "after the attempts, from memory";
    fs::remove(kBallast);
    loggedUntil(log, "changes that had failed are stored");
    EXPECT_EQ(sql(paths::kLiveDb, kRows),
              (SqlRows{{"private.later", "too", "enum"}, {"private.word", "it's", "string"}}));
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_EQ(contentOf(paths::kBackupDb), contentOf(paths::kLiveDb));
}

TEST(FullFlashLater, MakesRoomForTheBackupWithTheDamagedFile) {
    fs::remove(kBallast);
    resetDevice(treeOf(kWord));
    ASSERT_NO_FATAL_FAILURE(runOnce({{"private.word", "stored"}}));
    writeFile(paths::kLiveDb, std::string(fs::file_size(paths::kLiveDb), 'x'));
    takeAllRoom();
    DeviceLog log;
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    EXPECT_EQ(valueOf("private.word"), "stored");
    EXPECT_EQ(daemon.stop(), 0);
    EXPECT_NE(log.take().console.find("live database taken from the backup"), std::string::npos);
}

TEST(ReadOnlyFlash, ServesTheBackupElseTheDefaultsAndChangesNothing) {
    fs::remove_all("/tmp/kelbus");
    writeFile(paths::kNeutralTree, treeOf(kWord));
    ASSERT_THROW(writeFile(paths::kLiveDb, ""), std::runtime_error) << "not read only";
    for (const char* expected : {"default", "backed-up"}) {
        {
            Daemon daemon;
            ASSERT_TRUE(daemon.awaitReady());
            EXPECT_EQ(valueOf("private.word"), expected);
            EXPECT_TRUE(set("SET_ACTION_DIRECT", {{"private.word", "changed"}}));
            EXPECT_EQ(valueOf("private.word"), "changed");
            DeviceLog log;
            EXPECT_EQ(daemon.stop(), 0);
            EXPECT_NE(log.take().console.find("1 changes could not be stored"), std::string::npos);
        }
        EXPECT_TRUE(fs::is_empty("/mnt/nand/conf"));
        if (!exists(paths::kBackupDb)) {
            sql(paths::kBackupDb,
                "CREATE TABLE CONFIG(NAME TEXT PRIMARY KEY, VALUE TEXT, TYPE TEXT);"
                "INSERT INTO CONFIG VALUES('private.word','backed-up','string')");
            ASSERT_TRUE(createFileMD5(paths::kBackupDb, paths::kBackupDbMd5));
        }
    }
}

} // namespace
} // namespace kelconf::test
