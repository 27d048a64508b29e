// The live database and its copies on real files: the operations, damage, seals and passwords.

#include "builders/conf_builders.h"
#include "db/live_db.h"
#include "files/md5_sidecar.h"
#include "live/backup_pace.h"
#include "live/password_state.h"
#include "live/seal.h"
#include "live_device.h"
#include "support/records.h"
#include "tree/xitem.h"

#include <sys/syscall.h>

#include <chrono>

static std::size_t written = 0; // by the copy

extern "C" ssize_t write(int fd, const void* bytes, size_t size) {
    written += size;
    return syscall(SYS_write, fd, bytes, size);
}

namespace kelconf::test {
namespace {

using Lines = std::vector<std::string>;

class LiveStore : public testing::Test {
  protected:
    void SetUp() override {
        resetDevice();
        emptyLists();
        support_campass = 1;
        backup_pending = 0;
        connectLiveStore();
        createSQLTable();
        log.take();
    }
    void TearDown() override {
        allowUpdateRetries();
        emptyLists();
    }
    Lines logged() { return sameInBothSinks(log.take()); }
    static void load() {
        emptyLists();
        loadSQLDB();
    }
    DeviceLog log;
};

TEST_F(LiveStore, TextsAreStoredAndNeverExecuted) {
    for (const char* name : {"plain", "it's", "x'); DROP TABLE CONFIG; --", "\xc3\xa9", "a\"b"}) {
        EXPECT_EQ(insertSQLEntry(name, name, name), 1);
        EXPECT_EQ(updateSQLEntry(name, "two''s'' quotes''''"), 1);
    }
    EXPECT_EQ(sql(paths::kLiveDb, "SELECT count(*), max(VALUE), min(VALUE) FROM CONFIG"),
              (SqlRows{{"5", "two's' quotes''", "two's' quotes''"}}));
    for (const char* value : {"lone ' quote", ""}) {
        EXPECT_EQ(updateSQLEntry("plain", value) + updateSQLEntry("absent", "x"), 2);
        EXPECT_EQ(stored("plain"), value);
    }
    EXPECT_EQ(logged(), Lines{});
    EXPECT_EQ(insertSQLEntry("plain", "again", "") + syncSQLDB() + querySQLTable("absent"), 3);
    EXPECT_EQ(logged(), Lines{"2 SQL error: UNIQUE constraint failed: CONFIG.NAME\n"});
    EXPECT_EQ(insertSQLEntry(nullptr, "", "") + updateSQLEntry("a", nullptr), 0);
    EXPECT_EQ(querySQLTable(nullptr), 0);
}

TEST_F(LiveStore, TheTableIsMadeOnceAndLoadedSorted) {
    const SqlRows table = sql(paths::kLiveDb, "SELECT sql FROM sqlite_schema WHERE type='table'");
    EXPECT_EQ(table, (SqlRows{{"CREATE TABLE CONFIG( NAME  TEXT  PRIMARY KEY  ,VALUE TEXT         "
                               "      ,TYPE  TEXT           )"}}));
    createSQLTable();
    sql(paths::kLiveDb, "INSERT INTO CONFIG VALUES "
                        "('b','2','realtime'),('a',NULL,NULL),(NULL,'x','y'),('c','3','Realtime')");
    load();
    std::string list;
    for (std::uint32_t i = 0; const ParamElement* param = paramElementAt(i); ++i) {
        list +=
            param->name + std::string("=") + param->value + (param->persistent != 0 ? "; " : ", ");
    }
    EXPECT_EQ(list, "a=; b=2, c=3; ");
    sql(paths::kLiveDb, "DROP TABLE CONFIG");
    load();
    EXPECT_EQ(CheckParamListLength(), 0);
    createSQLTable();
    EXPECT_EQ(logged(),
              (Lines{"0 SQL error: no such table: CONFIG\n", "0 Table created successfully\n"}));
    sql(paths::kLiveDb, "DROP TABLE CONFIG");
    EXPECT_EQ(checkDataBaseIntegrity(paths::kLiveDb) + querySQLTable("a"), 0);
}

TEST_F(LiveStore, ALockedDatabaseIsTriedTenTimesASecondApart) {
    insertSQLEntry("a", "1", "");
    {
        const auto other = otherDoes("BEGIN EXCLUSIVE");
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(robustUpdateSQLEntry("a", "2"), 0);
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
        const Lines ten_attempts = logged();
        endUpdateRetries();
        EXPECT_EQ(robustUpdateSQLEntry("a", "2"), 0);
        const Lines one_attempt = logged(); // once the service ends
        EXPECT_EQ(one_attempt, (Lines{"2 PRAGMA sync full error:database is locked\n",
                                      "2 SQL error: database is locked\n"}));
        ASSERT_EQ(ten_attempts.size(), 20U);
        for (auto at = ten_attempts.begin(); at != ten_attempts.end(); at += 2) {
            EXPECT_EQ(Lines(at, at + 2), one_attempt);
        }
    }
    const auto reader = otherDoes("BEGIN; SELECT * FROM CONFIG");
    EXPECT_EQ(updateSQLEntry("a", "2"), 0) << "a commit that fails is an attempt that failed";
    EXPECT_EQ(stored("a"), "1");
}

// ---- Statements that SQLite refuses ----

std::string refused; // what an authorizer on every connection refuses

int refuse(void* /*unused*/, int action, const char* first, const char* /*second*/,
           const char* /*database*/, const char* /*trigger*/) {
    const bool pragma = action == SQLITE_PRAGMA && refused == "PRAGMA";
    return pragma || (action == SQLITE_TRANSACTION && refused == first) ? SQLITE_DENY : SQLITE_OK;
}

int watchConnection(sqlite3* database, char** /*message*/, const void* /*routines*/) {
    return sqlite3_set_authorizer(database, refuse, nullptr);
}

const auto insertNew = [] { return insertSQLEntry("new", "stored", ""); };
const auto updateOld = [] { return updateSQLEntry("old", "stored"); };
const auto buildNew = [] {
    initXitemList();
    const xitem item{newText("new"), newText("stored"), newText(""),
                     newText(""),    newText(""),       newText(""),
                     newText(""),    newText(""),       0};
    addXitemElement(&item);
    addXItemInDatabase();
    delXitemList();
    return 1;
};

TEST_F(LiveStore, RefusedStatementsAreToldInTheWordsOfEachOperation) {
    const auto expect = [&](const char* what, int (*run)(), int result, const char* stored,
                            const Lines& lines) {
        SCOPED_TRACE(what);
        SetUp();
        insertSQLEntry("old", "1", "");
        refused = what;
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(watchConnection));
        EXPECT_EQ(run(), result);
        sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(watchConnection));
        EXPECT_EQ(logged(), lines);
        EXPECT_EQ(sql(paths::kLiveDb, "SELECT count(*) FROM CONFIG WHERE VALUE='stored'")[0][0],
                  stored);
    };
    const std::string finished = "0 insert finishes\n";
    const std::string full = "2 PRAGMA sync full error:not authorized\n";
    expect("PRAGMA", insertNew, 1, "1", {"0 PRAGMA NORMAL error:not authorized\n"});
    expect("PRAGMA", updateOld, 1, "1", {full});
    expect("PRAGMA", syncSQLDB, 1, "0", {full});
    expect("PRAGMA", buildNew, 1, "1", {"0 PRAGMA OFF error\n", finished});
    expect("BEGIN", insertNew, 1, "1",
           {"2 begin trans error:not authorized\n",
            "2 end trans error:cannot commit - no transaction is active\n"});
    expect("BEGIN", updateOld, 1, "1", {});
    expect("BEGIN", buildNew, 1, "1", {"0 begin trans error\n", "0 end trans error\n", finished});
    expect("COMMIT", insertNew, 1, "0", {"2 end trans error:not authorized\n"});
    expect("COMMIT", updateOld, 0, "0", {});
    expect("COMMIT", buildNew, 1, "0", {"0 end trans error\n", finished});
}

TEST_F(LiveStore, AFileThatCannotBeOpenedIsToldByEach) {
    std::filesystem::remove(paths::kLiveDb);
    std::filesystem::create_directory(paths::kLiveDb);
    createSQLTable(); // in silence
    EXPECT_EQ(insertNew() + updateOld() + syncSQLDB() + querySQLTable("a"), 0);
    loadSQLDB();
    buildNew();
    Lines lines(6, "0 Can't open database: unable to open database file\n");
    EXPECT_EQ(checkDataBaseIntegrity(paths::kLiveDb), 0);
    lines.insert(lines.end(), {"0 checking /mnt/nand/conf/conf.db integrity\n", lines[0]});
    EXPECT_EQ(logged(), lines);
}

// ---- Seals ----

TEST_F(LiveStore, ASealTellsAnInterruptedWriteFromDamage) {
    insertSQLEntry("a", "recognisable", "");
    EXPECT_EQ(judgeLiveSeal(), LiveSeal::kBroken) << "never sealed";
    sealLiveDatabase();
    EXPECT_EQ(judgeLiveSeal(), LiveSeal::kMatches);
    updateSQLEntry("a", "recognisable too");
    EXPECT_EQ(judgeLiveSeal(), LiveSeal::kWrittenSince);
    sealLiveDatabase();
    const std::string good = readFile(paths::kLiveDb);
    for (std::size_t at = 0; at < good.size(); at += at < 100 ? 1 : 97) {
        std::string bad = good;
        for (const int bits : {1, 64}) {
            bad[at] = static_cast<char>(good[at] ^ bits);
            writeFile(paths::kLiveDb, bad);
            ASSERT_EQ(judgeLiveSeal(), LiveSeal::kBroken) << "byte " << at;
        }
        writeFile(paths::kLiveDb, good.substr(0, at));
        ASSERT_EQ(judgeLiveSeal(), LiveSeal::kBroken) << "cut at " << at;
    }
    writeFile(paths::kLiveDb, good);
    EXPECT_EQ(judgeLiveSeal(), LiveSeal::kMatches);
    updateSQLEntry("a", "3");
    for (const char* witness : {"", "12", "000000000x\n"}) {
        writeFile(paths::kLiveDbSeal, witness);
        EXPECT_EQ(judgeLiveSeal(), LiveSeal::kBroken) << "nothing explains the difference";
    }
}

// ---- Backup ----

TEST_F(LiveStore, FilesAreCopiedWholeByWritingWhatDiffers) {
    for (const std::size_t size : {0UL, 1UL, 131071UL, 131072UL, 131073UL, 400000UL}) {
        const std::string content(size, static_cast<char>('a' + size % 7));
        writeFile("/tmp/source", content);
        for (const std::string& old : {std::string(500000, 'o'), content.substr(size / 2)}) {
            writeFile("/tmp/target", old);
            EXPECT_EQ(copyFile("/tmp/source", "/tmp/target"), 0);
            EXPECT_EQ(readFile("/tmp/target"), content);
        }
    }
    for (const std::size_t at : {0UL, 1UL, 4096UL, 135167UL, 399999UL}) {
        writeFile("/tmp/target", readFile("/tmp/source").replace(at, 1, "o"));
        written = 0;
        EXPECT_EQ(copyFile("/tmp/source", "/tmp/target"), 0);
        EXPECT_EQ(readFile("/tmp/target"), readFile("/tmp/source"));
        EXPECT_EQ(written, at == 399999 ? 400000 % 4096 : 4096);
    }
    EXPECT_EQ(copyFile("/tmp/none", "/tmp/target"), -1);
    EXPECT_EQ(readFile("/tmp/target").size(), 400000U) << "not touched";
    EXPECT_EQ(copyFile("/tmp/source", "/tmp/none/target"), -1);
}

TEST_F(LiveStore, AValueThatChangesEverySecondIsBackedUpSoonAndThenRarely) {
    BackupPace pace;
    BackupPace::Moment now{};
    const auto backups = [&](int seconds) {
        int taken = 0;
        for (int i = 0; i < seconds; i += 5, now += std::chrono::seconds{5}) {
            if (pace.due(now)) {
                pace.noteTaken(now);
                ++taken;
            }
        }
        return taken;
    };
    EXPECT_EQ(backups(5), 1) << "at once";
    EXPECT_EQ(backups(3600), 16) << "5, 10, 20, 40, 80 and 160 seconds later, then every 300";
    now += 2 * kLongestPause;
    EXPECT_EQ(backups(16), 3) << "as in the beginning";
}

TEST_F(LiveStore, ABackupIsTakenOnlyWhenPending) {
    createBackupDBTask();
    EXPECT_FALSE(exists(paths::kBackupDb));
    for (const bool possible : {true, false}) {
        backup_pending = 1;
        createBackupDBTask();
        EXPECT_EQ(backup_pending, 0);
        EXPECT_EQ(readFile(paths::kBackupDb) == readFile(paths::kLiveDb), possible);
        EXPECT_EQ(logged(), possible ? Lines{} : Lines{"2 create hash failed \n"});
        EXPECT_EQ(checkConfigBackupDBMD5(), possible);
        std::filesystem::remove_all("/mnt/backup/conf");
    }
}

// ---- Passwords ----

TEST(Scrambling, ComesBackUpToItsCut) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string plain = std::string("ab") + static_cast<char>(byte) + "cd";
        OwnedText text{newText(plain)};
        simple_encrypt(text.get(), kScramblingKey);
        simple_decrypt(text.get(), kScramblingKey);
        EXPECT_STREQ(text.get(), byte == 0x3D ? "ab" : plain.c_str()) << byte;
    }
    EXPECT_EQ(scrambledForm("admin") + scrambledForm("") + scrambledForm("=x"), "JCcwLDE=");
    EXPECT_TRUE(isPasswordName("a.mypasswords") && isPasswordName("passwd"));
    EXPECT_FALSE(isPasswordName("a.Password"));
}

TEST_F(LiveStore, TheConversionRunsOnce) {
    sql(paths::kLiveDb, "INSERT INTO CONFIG VALUES ('u.password','it''s',''),('u.passwd','',''),"
                        "('u.Password','x',''),('private.encrypt_campass','0','')");
    load();
    EXPECT_EQ(validatePrivateCampass(), 1);
    EXPECT_EQ(checkPasswordEncryption() + encryptAllPasswordInDB(), 0);
    EXPECT_EQ(logged(), Lines{"0 encrypt password\n"});
    EXPECT_EQ(live("u.password"), "it's") << "the live value stays plain";
    EXPECT_EQ(sql(paths::kLiveDb, "SELECT VALUE FROM CONFIG"),
              (SqlRows{{scrambledForm("it's")}, {""}, {"x"}, {"1"}}));
    EXPECT_EQ(readFile(paths::kBackupDb), readFile(paths::kLiveDb));
    EXPECT_TRUE(checkConfigDBMD5() && checkConfigBackupDBMD5());
    EXPECT_EQ(encryptAllPasswordInDB(), 1);
    load();
    restorPlainPassword();
    EXPECT_EQ(live("u.password"), "it's");
    EXPECT_EQ(logged(), Lines{"0 decrypt to plain text\n"});
    for (const auto& [value, scrambled] : {std::pair{"0", 0}, {"1", 1}, {"", 1}, {"00", 1}}) {
        replaceText(seekParamElement(kPasswordSwitch)->value, value);
        EXPECT_EQ(checkPasswordEncryption(), scrambled) << value;
    }
}

TEST_F(LiveStore, PrivateSettingsAreOptional) {
    EXPECT_EQ(encryptAllPasswordInDB() + checkPasswordEncryption() + validatePrivateCampass(), 0);
    setExtFeatureStatus("x");
    addLive("private.ext_features", "old");
    setExtFeatureStatus(nullptr);
    EXPECT_EQ(live("private.ext_features"), "old");
    setExtFeatureStatus("new");
    EXPECT_EQ(live("private.ext_features"), "new");
}

} // namespace
} // namespace kelconf::test
