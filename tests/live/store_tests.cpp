// The live database and its copies on real files: the operations, damage, seals and passwords.

#include "builders/conf_builders.h"
#include "db/live_db.h"
#include "db/update_retries.h"
#include "files/backup.h"
#include "files/md5_sidecar.h"
#include "live/live.h"
#include "live/password_state.h"
#include "live/seal.h"
#include "paths.h"
#include "service/live_values.h"
#include "service/passwords.h"
#include "support/files.h"
#include "support/records.h"
#include "tree/xitem.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

namespace kelconf::test {
namespace {

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
    std::vector<std::string> logged() { return sameInBothSinks(log.take()); }
    static std::string stored(const std::string& name) {
        const auto rows = sql(paths::kLiveDb, "SELECT VALUE FROM CONFIG WHERE NAME='" + name + "'");
        return rows.empty() ? "(none)" : rows[0][0];
    }
    static void load() {
        emptyLists();
        loadSQLDB();
    }
    DeviceLog log;
};

TEST_F(LiveStore, TheTableIsMadeOnceAsDescribed) {
    EXPECT_EQ(sql(paths::kLiveDb, "SELECT sql FROM sqlite_schema WHERE type='table'"),
              (SqlRows{{"CREATE TABLE CONFIG( NAME  TEXT  PRIMARY KEY  ,VALUE TEXT               "
                        ",TYPE  TEXT           )"}}));
    createSQLTable();
    EXPECT_EQ(logged(), std::vector<std::string>{});
    std::filesystem::remove(paths::kLiveDb);
    createSQLTable();
    EXPECT_EQ(logged(), std::vector<std::string>{"0 Table created successfully\n"});
}

TEST_F(LiveStore, TextsAreStoredAndNeverExecuted) {
    const std::string names[] = {"plain", "it's", "x'); DROP TABLE CONFIG; --", "\xc3\xa9", "a\"b"};
    for (const std::string& name : names) {
        EXPECT_EQ(insertSQLEntry(name.c_str(), name.c_str(), name.c_str()), 1);
        EXPECT_EQ(updateSQLEntry(name.c_str(), "two''s'' quotes''''"), 1);
    }
    EXPECT_EQ(sql(paths::kLiveDb, "SELECT count(*), max(VALUE), min(VALUE) FROM CONFIG"),
              (SqlRows{{"5", "two's' quotes''", "two's' quotes''"}}));
    EXPECT_EQ(updateSQLEntry("plain", "lone ' quote"), 1);
    EXPECT_EQ(stored("plain"), "lone ' quote");
    EXPECT_EQ(updateSQLEntry("plain", ""), 1);
    EXPECT_EQ(stored("plain"), "");
    EXPECT_EQ(updateSQLEntry("absent", "x"), 1);
    EXPECT_EQ(logged(), std::vector<std::string>{});
    EXPECT_EQ(insertSQLEntry("plain", "again", ""), 1);
    EXPECT_EQ(logged(),
              std::vector<std::string>{"2 SQL error: UNIQUE constraint failed: CONFIG.NAME\n"});
    EXPECT_EQ(insertSQLEntry(nullptr, "", ""), 0);
    EXPECT_EQ(updateSQLEntry("a", nullptr), 0);
    EXPECT_EQ(querySQLTable(nullptr), 0);
    EXPECT_EQ(querySQLTable("absent"), 1);
    EXPECT_EQ(syncSQLDB(), 1);
}

TEST_F(LiveStore, LoadingFillsAndSortsTheList) {
    sql(paths::kLiveDb, "INSERT INTO CONFIG VALUES "
                        "('b','2','realtime'),('a',NULL,NULL),(NULL,'x','y'),('c','3','Realtime')");
    load();
    ASSERT_EQ(CheckParamListLength(), 3);
    EXPECT_EQ(live("a"), "");
    EXPECT_EQ(seekParamElement("a")->persistent, 1);
    EXPECT_EQ(seekParamElement("b")->persistent, 0);
    EXPECT_EQ(seekParamElement("c")->persistent, 1);
    EXPECT_STREQ(paramElementAt(0)->name, "a");
    sql(paths::kLiveDb, "DROP TABLE CONFIG");
    load();
    EXPECT_EQ(CheckParamListLength(), 0);
    EXPECT_EQ(logged(), std::vector<std::string>{"0 SQL error: no such table: CONFIG\n"});
    EXPECT_EQ(checkDataBaseIntegrity(paths::kLiveDb), 0);
    EXPECT_EQ(querySQLTable("a"), 0);
}

TEST_F(LiveStore, ALockedDatabaseIsTriedTenTimesASecondApart) {
    insertSQLEntry("a", "1", "");
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open(paths::kLiveDb, &other), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(robustUpdateSQLEntry("a", "2"), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
    std::vector<std::string> ten_attempts;
    for (int attempt = 0; attempt < 10; ++attempt) {
        ten_attempts.emplace_back("2 PRAGMA sync full error:database is locked\n");
        ten_attempts.emplace_back("2 SQL error: database is locked\n");
    }
    EXPECT_EQ(logged(), ten_attempts);
    endUpdateRetries();
    EXPECT_EQ(robustUpdateSQLEntry("a", "2"), 0);
    EXPECT_EQ(logged().size(), 2U) << "one attempt once the service ends";
    sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(other);
    EXPECT_EQ(robustUpdateSQLEntry("a", "2"), 1);
}

// A reader keeps the commit, but not the UPDATE, from going through.
TEST_F(LiveStore, AFailedCommitIsAFailedAttempt) {
    insertSQLEntry("a", "1", "");
    sqlite3* reader = nullptr;
    ASSERT_EQ(sqlite3_open(paths::kLiveDb, &reader), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(reader, "BEGIN; SELECT * FROM CONFIG", nullptr, nullptr, nullptr),
              SQLITE_OK);
    EXPECT_EQ(updateSQLEntry("a", "2"), 0);
    sqlite3_exec(reader, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(reader);
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

int insertNew() {
    return insertSQLEntry("new", "stored", "");
}
int updateOld() {
    return updateSQLEntry("old", "stored");
}
int buildNew() {
    initXitemList();
    const xitem item{newText("new"), newText("stored"), newText(""),
                     newText(""),    newText(""),       newText(""),
                     newText(""),    newText(""),       0};
    addXitemElement(&item);
    addXItemInDatabase();
    delXitemList();
    return 1;
}

TEST_F(LiveStore, RefusedStatementsAreToldInTheWordsOfEachOperation) {
    using Lines = std::vector<std::string>;
    struct {
        const char* refused;
        int (*run)();
        int result;
        bool stored;
        Lines lines;
    } const cases[] = {
        {"PRAGMA", insertNew, 1, true, {"0 PRAGMA NORMAL error:not authorized\n"}},
        {"PRAGMA", updateOld, 1, true, {"2 PRAGMA sync full error:not authorized\n"}},
        {"PRAGMA", syncSQLDB, 1, false, {"2 PRAGMA sync full error:not authorized\n"}},
        {"PRAGMA", buildNew, 1, true, {"0 PRAGMA OFF error\n", "0 insert finishes\n"}},
        {"BEGIN",
         insertNew,
         1,
         true,
         {"2 begin trans error:not authorized\n",
          "2 end trans error:cannot commit - no transaction is active\n"}},
        {"BEGIN", updateOld, 1, true, {}},
        {"BEGIN",
         buildNew,
         1,
         true,
         {"0 begin trans error\n", "0 end trans error\n", "0 insert finishes\n"}},
        {"COMMIT", insertNew, 1, false, {"2 end trans error:not authorized\n"}},
        {"COMMIT", updateOld, 0, false, {}},
        {"COMMIT", buildNew, 1, false, {"0 end trans error\n", "0 insert finishes\n"}},
    };
    for (const auto& c : cases) {
        SetUp();
        insertSQLEntry("old", "1", "");
        refused = c.refused;
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(watchConnection));
        EXPECT_EQ(c.run(), c.result) << c.refused;
        sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(watchConnection));
        EXPECT_EQ(logged(), c.lines) << c.refused;
        EXPECT_EQ(sql(paths::kLiveDb, "SELECT count(*) FROM CONFIG WHERE VALUE='stored'")[0][0],
                  c.stored ? "1" : "0")
            << c.refused;
    }
}

TEST_F(LiveStore, AFileThatCannotBeOpenedIsToldByEach) {
    std::filesystem::remove(paths::kLiveDb);
    std::filesystem::create_directory(paths::kLiveDb);
    createSQLTable(); // in silence
    EXPECT_EQ(insertNew() + updateOld() + syncSQLDB() + querySQLTable("a"), 0);
    loadSQLDB();
    buildNew();
    EXPECT_EQ(checkDataBaseIntegrity(paths::kLiveDb), 0);
    const std::string line = "0 Can't open database: unable to open database file\n";
    EXPECT_EQ(logged(),
              (std::vector<std::string>{line, line, line, line, line, line,
                                        "0 checking /mnt/nand/conf/conf.db integrity\n", line}));
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
        for (const int bit : {1, 64}) {
            std::string bad = good;
            bad[at] = static_cast<char>(bad[at] ^ bit);
            writeFile(paths::kLiveDb, bad);
            ASSERT_EQ(judgeLiveSeal(), LiveSeal::kBroken) << "byte " << at;
        }
    }
    for (std::size_t size = 0; size < good.size(); size += 211) {
        writeFile(paths::kLiveDb, good.substr(0, size));
        ASSERT_EQ(judgeLiveSeal(), LiveSeal::kBroken) << "cut at " << size;
    }
    writeFile(paths::kLiveDb, good);
    EXPECT_EQ(judgeLiveSeal(), LiveSeal::kMatches);
    updateSQLEntry("a", "3");
    for (const std::string& witness :
         {std::string{}, std::string("12"), std::string("000000000x\n")}) {
        writeFile(paths::kLiveDbSeal, witness);
        EXPECT_EQ(judgeLiveSeal(), LiveSeal::kBroken) << "nothing explains the difference";
    }
}

// ---- Backup ----

TEST_F(LiveStore, FilesAreCopiedWhole) {
    for (const std::size_t size : {0UL, 1UL, 131071UL, 131072UL, 131073UL, 400000UL}) {
        const std::string content(size, static_cast<char>('a' + size % 7));
        writeFile("/tmp/source", content);
        writeFile("/tmp/target", std::string(500000, 'o'));
        EXPECT_EQ(copyFile("/tmp/source", "/tmp/target"), 0);
        EXPECT_EQ(readFile("/tmp/target"), content);
    }
    EXPECT_EQ(copyFile("/tmp/none", "/tmp/target"), -1);
    EXPECT_EQ(readFile("/tmp/target").size(), 400000U) << "not touched";
    EXPECT_EQ(copyFile("/tmp/source", "/tmp/none/target"), -1);
}

TEST_F(LiveStore, ABackupIsTakenOnlyWhenPending) {
    createBackupDBTask();
    EXPECT_FALSE(exists(paths::kBackupDb));
    backup_pending = 1;
    createBackupDBTask();
    EXPECT_EQ(backup_pending, 0);
    EXPECT_EQ(readFile(paths::kBackupDb), readFile(paths::kLiveDb));
    EXPECT_TRUE(checkConfigBackupDBMD5());
    std::filesystem::remove_all("/mnt/backup/conf");
    log.take();
    backup_pending = 1;
    createBackupDBTask();
    EXPECT_EQ(backup_pending, 0);
    EXPECT_EQ(logged(), std::vector<std::string>{"2 create hash failed \n"});
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
    EXPECT_EQ(scrambledForm("admin"), "JCcwLDE=");
    EXPECT_EQ(scrambledForm(""), "");
    EXPECT_EQ(scrambledForm("=x"), "");
    EXPECT_TRUE(isPasswordName("a.mypasswords"));
    EXPECT_TRUE(isPasswordName("passwd"));
    EXPECT_FALSE(isPasswordName("a.Password"));
}

TEST_F(LiveStore, TheConversionRunsOnce) {
    for (const auto& [name, value] : {std::pair{"u.password", "it's"},
                                      {"u.passwd", ""},
                                      {"u.Password", "x"},
                                      {"private.encrypt_campass", "0"}}) {
        insertSQLEntry(name, value, "");
    }
    load();
    EXPECT_EQ(validatePrivateCampass(), 1);
    EXPECT_EQ(checkPasswordEncryption(), 0);
    EXPECT_EQ(encryptAllPasswordInDB(), 0);
    EXPECT_EQ(logged(), std::vector<std::string>{"0 encrypt password\n"});
    EXPECT_EQ(live("u.password"), "it's") << "the live value stays plain";
    EXPECT_EQ(stored("u.password"), scrambledForm("it's"));
    EXPECT_EQ(stored("u.passwd"), "");
    EXPECT_EQ(stored("u.Password"), "x");
    EXPECT_EQ(stored("private.encrypt_campass"), "1");
    EXPECT_EQ(readFile(paths::kBackupDb), readFile(paths::kLiveDb));
    EXPECT_TRUE(checkConfigDBMD5() && checkConfigBackupDBMD5());
    EXPECT_EQ(encryptAllPasswordInDB(), 1);
    load();
    restorPlainPassword();
    EXPECT_EQ(live("u.password"), "it's");
    EXPECT_EQ(logged(), std::vector<std::string>{"0 decrypt to plain text\n"});
    for (const auto& [value, scrambled] : {std::pair{"0", 0}, {"1", 1}, {"", 1}, {"00", 1}}) {
        replaceText(seekParamElement(kPasswordSwitch)->value, value);
        EXPECT_EQ(checkPasswordEncryption(), scrambled) << value;
    }
}

TEST_F(LiveStore, PrivateSettingsAreOptional) {
    EXPECT_EQ(encryptAllPasswordInDB(), 0);
    EXPECT_EQ(checkPasswordEncryption(), 0);
    EXPECT_EQ(validatePrivateCampass(), 0);
    setExtFeatureStatus("x");
    addLive("private.ext_features", "old");
    setExtFeatureStatus(nullptr);
    EXPECT_EQ(live("private.ext_features"), "old");
    setExtFeatureStatus("new");
    EXPECT_EQ(live("private.ext_features"), "new");
}

} // namespace
} // namespace kelconf::test
