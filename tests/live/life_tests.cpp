// What the live store makes of what it finds: after a cut, after damage, under the service.
#include "files/md5_sidecar.h"
#include "live/judge.h"
#include "live/password_state.h"
#include "live/rows.h"
#include "live/seal.h"
#include "live_device.h"

#include <functional>

namespace kelconf {

// In the place of db/update_retries.cpp: between attempts, none of which is waited for.
int pauses = 0;

bool pauseBeforeRetry() {
    ++pauses;
    return true;
}
void endUpdateRetries() {}
void allowUpdateRetries() {}

} // namespace kelconf

namespace kelconf::test {
namespace {

constexpr const char* kSidecar = paths::kLiveDbMd5;
const std::string kFiller(50, 'f');

std::string fillers(int count) {
    std::string leaves;
    for (int i = 0; i < count; ++i) {
        leaves += leaf("filler" + std::to_string(i), kFiller);
    }
    return leaves;
}

class Life : public testing::Test {
  protected:
    void SetUp() override {
        resetDevice();
        std::filesystem::remove_all("/tmp/kelbus");
        writeTree(leaf("word", "default") + fillers(200));
        support_campass = 1;
        start();
        setDirect({{"p.word", "backed-up"}});
        tendLiveStore();
        ASSERT_EQ(backup_pending, 0);
        older = flashNow();
        older_journal = tornByTransaction()[paths::kLiveDbJournal];
        setDirect({{"p.word", "newer"}});
        log.take();
    }
    void TearDown() override { forgetMemory(); }
    std::string logged() { return log.take().console; }
    // What a transaction leaves that is cut short once its pages go into the file.
    static Flash tornByTransaction() {
        sqlite3* database = nullptr;
        sqlite3_open(paths::kLiveDb, &database);
        sqlite3_exec(database,
                     "PRAGMA cache_size=1; BEGIN; UPDATE CONFIG SET VALUE=hex(zeroblob(2000))",
                     nullptr, nullptr, nullptr);
        Flash torn = flashNow();
        sqlite3_exec(database, "ROLLBACK", nullptr, nullptr, nullptr);
        sqlite3_close(database);
        EXPECT_NE(torn[paths::kLiveDb], readFile(paths::kLiveDb));
        EXPECT_TRUE(torn.contains(paths::kLiveDbJournal));
        return torn;
    }
    DeviceLog log;
    Flash older;               // the live file as it was backed up
    std::string older_journal; // that brings this state back
};

// ---- What a start finds -------------------------------------------------------------------------

struct Found {
    const char* name;
    std::function<void(Flash& flash)> happen;
    const char* value;
    const char* said;
};

TEST_F(Life, AStartKeepsTheBestOfWhatIsThere) {
    const Flash good = flashNow();
    Flash torn = tornByTransaction();
    const std::string db = paths::kLiveDb;
    const std::string journal = paths::kLiveDbJournal;
    const std::string fresh = paths::kLiveNew;
    const std::string fresh_md5 = paths::kLiveNewMd5;
    const std::string backup = paths::kBackupDb;
    const auto lose_backup = [&](Flash& flash) {
        flash.erase(backup);
        flash.erase(backup + ".md5");
    };
    const auto wait = [&](Flash& flash, const Flash& with) { // a finished replacement
        flash[fresh] = with.at(db);
        flash[fresh_md5] = with.at(kSidecar);
    };
    const Found cases[] = {
        {"nothing happened", [](Flash&) {}, "newer", "database sound"},
        {"the journal of a transaction that is over is back",
         [&](Flash& flash) { flash[journal] = older_journal; }, "newer", "database sound"},
        {"a journal lost bytes that its checksums do not see, before the file was touched",
         [&](Flash& flash) {
             flash[journal] = torn[journal];
             flash[journal].at(torn[journal].find("newer")) = 'N';
         },
         "newer", "database sound"},
        {"cut while the file was written", [&](Flash& flash) { flash = torn; }, "newer",
         "database sound"},
        {"cut between the commit and the seal",
         [&](Flash& flash) {
             flash[kSidecar] = older[kSidecar];
             flash[paths::kLiveDbSeal] = older[paths::kLiveDbSeal];
         },
         "newer", "recovered from an interrupted write"},
        {"a witness of another seal explains nothing",
         [&](Flash& flash) {
             flash[paths::kLiveDbSeal] = older[paths::kLiveDbSeal];
             flash[db][flash[db].find("newer")] = 'N';
         },
         "backed-up", "taken from the backup"},
        {"the replacement has the name, not yet the sidecar",
         [&](Flash& flash) {
             flash[fresh_md5] = flash[kSidecar];
             flash[kSidecar] = older[kSidecar];
             flash[paths::kLiveDbSeal] = "";
         },
         "newer", "database sound"},
        {"a replacement is not needed", [&](Flash& flash) { wait(flash, older); }, "newer",
         "database sound"},
        {"a replacement waits for a file that is damaged",
         [&](Flash& flash) {
             wait(flash, flash);
             flash[db][5000] ^= 1;
         },
         "newer", "taken from its finished replacement"},
        {"an unfinished replacement is none",
         [&](Flash& flash) {
             flash[fresh] = flash[db];
             flash[db][5000] ^= 1;
         },
         "backed-up", "taken from the backup"},
        {"no sidecar and no backup: an older firmware's, or restored by hand",
         [&](Flash& flash) {
             flash.erase(kSidecar);
             flash[paths::kLiveEvidence] = "of another day";
             lose_backup(flash);
         },
         "newer", "used as it reads"},
        {"the file cannot be read, the backup has no sidecar",
         [&](Flash& flash) {
             flash[db].assign(flash[db].size(), 'x');
             flash.erase(backup + ".md5");
         },
         "backed-up", "vouches for the backup"},
    };
    for (const Found& c : cases) {
        SCOPED_TRACE(c.name);
        Flash flash = good;
        c.happen(flash);
        putFlash(flash);
        start();
        EXPECT_EQ(live("p.word"), c.value);
        EXPECT_EQ(live("p.filler7"), kFiller);
        EXPECT_NE(logged().find(c.said), std::string::npos);
        EXPECT_TRUE(checkConfigDBMD5());
        for (const std::string& left : {journal, fresh, fresh_md5}) {
            EXPECT_FALSE(exists(left)) << left;
        }
        const Flash repaired = flashNow();
        start();
        EXPECT_EQ(live("p.word"), c.value) << "the repair lasts";
        EXPECT_NE(logged().find("database sound"), std::string::npos);
        EXPECT_EQ(flashNow(), repaired) << "a start that finds nothing new writes nothing";
    }
}

TEST_F(Life, AStartSealsAllThatItChanges) {
    const std::string leaves[] = {leaf("a_passwd", "1"),
                                  leaf("a_passwd", "1") + leaf("encrypt_campass", "0"),
                                  leaf("b_passwd", "2") + leaf("encrypt_campass", "0")};
    for (const std::string& tree : leaves) {
        writeFile(paths::kNeutralTree, "<t><private type=\"trunk\">" + tree + "</private></t>");
        start();
        EXPECT_TRUE(checkConfigDBMD5());
        EXPECT_TRUE(untouchedSinceSealing());
    }
    EXPECT_EQ(live("private.a_passwd") + live("private.b_passwd"), "12");
    EXPECT_EQ(storedIn(paths::kLiveDb, "private.b_passwd"), scrambledForm("2"));
}

TEST_F(Life, TheFileIsHeldWhileItIsLoaded) {
    forgetMemory();
    const LiveSource source = readyLiveStore([] { return false; });
    EXPECT_THROW(sql(paths::kLiveDb, "UPDATE CONFIG SET VALUE='other'"), std::runtime_error);
}

TEST_F(Life, NewNamesAreServedWhileTheFileIsLockedAndStoredLater) {
    writeTree(leaf("word", "default") + fillers(200) + leaf("added", "new"));
    sqlite3* other = nullptr;
    sqlite3_open(paths::kLiveDb, &other);
    sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
    start();
    EXPECT_EQ(live("p.word") + live("p.added"), "newernew");
    sqlite3_close(other);
    tendLiveStore();
    EXPECT_EQ(storedIn(paths::kLiveDb, "p.added"), "new");
    EXPECT_EQ(storedIn(paths::kLiveDb, "p.word"), "newer");
}

// ---- Under the service --------------------------------------------------------------------------

TEST_F(Life, AFileThatIsLostIsMadeAnewInThePass) {
    const std::pair<const char*, std::function<void()>> losses[] = {
        {"deleted", [] { std::filesystem::remove(paths::kLiveDb); }},
        {"overwritten", [] { writeFile(paths::kLiveDb, std::string(12288, 'x')); }},
        {"older", [&] { writeFile(paths::kLiveDb, older[paths::kLiveDb]); }},
        {"changed by another program",
         [] { sql(paths::kLiveDb, "UPDATE CONFIG SET VALUE='other'"); }},
        {"with an old journal", [] {
             const Flash torn = tornByTransaction();
             std::filesystem::remove(paths::kLiveDb);
             writeFile(paths::kLiveDbJournal, torn.at(paths::kLiveDbJournal));
         }}};
    for (const auto& [name, happen] : losses) {
        SCOPED_TRACE(name);
        happen();
        setDirect({{"p.filler1", name}});
        EXPECT_NE(logged().find("made anew from memory"), std::string::npos);
        setDirect({{"p.filler2", name}});
        start();
        EXPECT_EQ(live("p.word"), "newer");
        EXPECT_EQ(live("p.filler1"), name);
        EXPECT_EQ(live("p.filler2"), name);
    }
    EXPECT_EQ(pauses, 0) << "no row is tried on a lost file";
}

TEST_F(Life, OnlyAFileThatHoldsMemoryIsBackedUp) {
    const std::pair<std::string, std::string> rots[] = {
        {"newer", "never"}, // a value
        {std::string(kFiller), std::string(kFiller.size(), '\0')},
        {"string", "String"},
    };
    for (const auto& [from, to] : rots) {
        rot(from, to);
        setDirect({{"p.filler199", from}}); // sealed with what has rotted
        tendLiveStore();
        EXPECT_EQ(storedIn(paths::kBackupDb, "p.word"), "newer");
        EXPECT_EQ(storedIn(paths::kBackupDb, "p.filler199"), from);
        EXPECT_EQ(readFile(paths::kBackupDb), readFile(paths::kLiveDb));
        start();
        EXPECT_EQ(live("p.word"), "newer");
    }
}

TEST_F(Life, WhatIsInMemoryOnlyIsNeverStored) {
    setDirect({{"p.filler1", "stored"}});
    apply(setValueForSetAnswerListNoDBStore, {{"p.word", "passing"}, {"p.word", "passed"}});
    noteUnstored("p.filler1", "owed"); // by a pass that failed; changed in memory since
    apply(setValueForSetAnswerListNoDBStore, {{"p.filler1", "passing"}});
    setLiveFile(LiveFile::kLost);
    setDirect({});
    EXPECT_EQ(storedIn(paths::kLiveDb, "p.word"), "newer");
    EXPECT_EQ(storedIn(paths::kLiveDb, "p.filler1"), "owed");
    EXPECT_EQ(live("p.word") + live("p.filler1"), "passedpassing");
    setDirect({{"p.word", "kept"}});
    std::filesystem::remove(paths::kLiveDb);
    tendLiveStore();
    EXPECT_EQ(storedIn(paths::kLiveDb, "p.word"), "kept");
}

TEST_F(Life, ATornFileIsNotSealed) {
    const Flash good = flashNow();
    putFlash(tornByTransaction());
    EXPECT_TRUE(sealLiveDatabase()) << "what was torn is undone first";
    EXPECT_EQ(readFile(paths::kLiveDb), good.at(paths::kLiveDb));
}

TEST_F(Life, AFileThatCannotBeHashedIsToldInThePass) {
    for (const bool directory : {false, true}) {
        writeFile(paths::kLiveEvidence, "so that what is in the way stays there");
        std::filesystem::remove(paths::kLiveDb);
        directory ? static_cast<void>(std::filesystem::create_directory(paths::kLiveDb))
                  : static_cast<void>(std::filesystem::remove_all("/mnt/nand/conf"));
        setDirect({});
        EXPECT_NE(logged().find("create hash failed \n"), std::string::npos) << directory;
        std::filesystem::create_directories("/mnt/nand/conf");
    }
}

// ---- A storage that refuses ---------------------------------------------------------------------

TEST_F(Life, TheFirstRefusedRowGetsTenAttemptsTheOthersOne) {
    sqlite3* other = nullptr;
    sqlite3_open(paths::kLiveDb, &other);
    for (const int rows : {1, 3}) {
        sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
        log.take();
        pauses = 0;
        Values values;
        for (int i = 0; i < rows; ++i) {
            values.emplace_back("p.filler" + std::to_string(i), std::to_string(rows));
        }
        setDirect(values);
        EXPECT_EQ(pauses, 10);
        const std::string said = logged();
        std::ptrdiff_t refusals = 0;
        for (std::size_t at = 0; (at = said.find("SQL error: ", at)) != std::string::npos; ++at) {
            ++refusals;
        }
        EXPECT_EQ(refusals, rows == 1 ? 10 : 1 + 10 + rows - 1) << "the transaction counts as one";
        tendLiveStore();
        EXPECT_EQ(pauses, 10) << "the upkeep asks once, and waits for nothing";
        sqlite3_exec(other, "ROLLBACK", nullptr, nullptr, nullptr);
        tendLiveStore();
        EXPECT_EQ(storedIn(paths::kLiveDb, "p.filler0"), std::to_string(rows));
        EXPECT_TRUE(checkConfigDBMD5());
    }
    sqlite3_close(other);
}

TEST_F(Life, OneRowThatIsRefusedDoesNotTakeTheOthersWithIt) {
    sql(paths::kLiveDb, "CREATE TRIGGER t BEFORE UPDATE ON CONFIG WHEN NEW.NAME='p.filler1' "
                        "BEGIN SELECT RAISE(FAIL,'no'); END");
    settleLiveDatabase();
    setDirect({{"p.filler0", "a"}, {"p.filler1", "b"}, {"p.filler2", "c"}, {"p.filler0", "d"}});
    EXPECT_EQ(storedIn(paths::kLiveDb, "p.filler0"), "d");
    EXPECT_EQ(storedIn(paths::kLiveDb, "p.filler1"), kFiller);
    EXPECT_EQ(storedIn(paths::kLiveDb, "p.filler2"), "c");
    EXPECT_TRUE(anyUnstored());
}

TEST_F(Life, PasswordsThatTheStartCouldNotScrambleAreScrambledLater) {
    writeTree(leaf("word", "default") + fillers(200) + leaf("a_passwd", "1"));
    start();
    addLive(kPasswordSwitch, "0");
    sortParamList();
    adoptPasswords({passwordMarkOf(plainMark(202)), {}}, true);
    sql(paths::kLiveDb, "INSERT INTO CONFIG VALUES('private.encrypt_campass','0','int')");
    settleLiveDatabase();
    apply(setValueForSetAnswerListNoDBStore, {{"p.a_passwd", "passing"}});
    pauses = 0;
    {
        const auto reader = holdForReading(paths::kLiveDb);
        tendLiveStore();
    }
    EXPECT_EQ(pauses, 0) << "with all locks held";
    tendLiveStore();
    EXPECT_EQ(storedIn(paths::kLiveDb, "p.a_passwd"), scrambledForm("1"));
    EXPECT_EQ(storedIn(paths::kLiveDb, kPasswordSwitch), "1");
    start();
    EXPECT_EQ(live("p.a_passwd"), "1");
}

} // namespace
} // namespace kelconf::test
