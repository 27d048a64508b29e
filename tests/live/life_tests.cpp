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
std::function<void()> in_pause;

bool pauseBeforeRetry() {
    ++pauses;
    in_pause ? in_pause() : void();
    return true;
}
void endUpdateRetries() {}
void allowUpdateRetries() {}

} // namespace kelconf

namespace kelconf::test {
namespace {

const std::string kFiller(50, 'f');

std::string fillers(int count) {
    std::string leaves;
    for (int i = 0; i < count; ++i) {
        leaves += leaf("filler" + std::to_string(i), kFiller);
    }
    return leaves;
}

int timesIn(const std::string& text, const std::string& word) {
    const std::size_t at = text.find(word);
    return at == std::string::npos ? 0 : 1 + timesIn(text.substr(at + 1), word);
}

class Life : public testing::Test {
  protected:
    void SetUp() override {
        resetDevice();
        std::filesystem::remove_all("/tmp/kelbus");
        writeTree(leaf("word", "default") + fillers(200));
        support_campass = 1;
        start();
        set({{"p.word", "backed-up"}});
        tendLiveStore(true);
        ASSERT_EQ(backup_pending, 0);
        older = flashNow();
        older_journal = tornByTransaction()[paths::kLiveDbJournal];
        set({{"p.word", "newer"}});
        log.take();
    }
    void TearDown() override { forgetMemory(); }
    std::string logged() { return log.take().console; }
    // What a transaction leaves that is cut short once its pages go into the file.
    static Flash tornByTransaction() {
        const auto other =
            otherDoes("PRAGMA cache_size=1; BEGIN; UPDATE CONFIG SET VALUE=hex(zeroblob(2000))");
        return flashNow();
    }
    DeviceLog log;
    Flash older;               // the live file as it was backed up
    std::string older_journal; // that brings this state back
};

// ---- What a start finds -------------------------------------------------------------------------

TEST_F(Life, AStartKeepsTheBestOfWhatIsThere) {
    Flash good = flashNow();
    Flash torn = tornByTransaction();
    const std::string db = paths::kLiveDb, md5 = paths::kLiveDbMd5, seal = paths::kLiveDbSeal,
                      journal = paths::kLiveDbJournal, fresh = paths::kLiveNew,
                      fresh_md5 = paths::kLiveNewMd5, backup = paths::kBackupDb,
                      backup_md5 = paths::kBackupDbMd5, gone = "(gone)";
    ASSERT_TRUE(torn.contains(journal) && torn[db] != good[db]);
    std::string damaged = good[db], unknown = torn[journal], enormous = torn[journal];
    damaged[5000] ^= 1;
    unknown[0] ^= 1;
    enormous[18] ^= 0x20; // 8,192 pages more that the file had, says its header
    const auto expect = [&](const char* value, const char* said, const char* name,
                            const Flash& changed) {
        SCOPED_TRACE(name);
        Flash flash = changed;
        flash.insert(good.begin(), good.end());
        std::erase_if(flash, [&](const auto& file) { return file.second == gone; });
        putFlash(flash);
        start();
        EXPECT_EQ(live("p.word") + live("p.filler7"), value + kFiller);
        EXPECT_NE(logged().find(said), std::string::npos);
        EXPECT_TRUE(checkConfigDBMD5());
        EXPECT_FALSE(exists(journal) || exists(fresh) || exists(fresh_md5));
        const Flash repaired = flashNow();
        start();
        EXPECT_EQ(live("p.word"), value) << "the repair lasts";
        EXPECT_NE(logged().find("database sound"), std::string::npos);
        EXPECT_EQ(flashNow(), repaired) << "a start that finds nothing new writes nothing";
    };
    expect("newer", "database sound", "nothing happened", {});
    expect("newer", "database sound", "the journal of a transaction that is over is back",
           {{journal, older_journal}});
    expect("newer", "database sound",
           "a journal lost bytes that its checksums do not see, before the file was touched",
           {{journal, swapped(torn[journal], "newer", "N")}});
    expect("newer", "database sound", "cut while the file was written", torn);
    expect("newer", "recovered from an interrupted write", "cut between the commit and the seal",
           {{md5, older[md5]}, {seal, older[seal]}});
    expect("backed-up", "taken from the backup", "a witness of another seal explains nothing",
           {{seal, older[seal]}, {db, swapped(good[db], "newer", "N")}});
    expect("backed-up", "taken from the backup",
           "the file is ahead beside a journal that SQLite passes over",
           {{md5, older[md5]}, {seal, older[seal]}, {journal, unknown}, {db, good[db]}});
    expect("newer", "recovered from an interrupted write", "another program empties its journals",
           {{md5, older[md5]}, {seal, older[seal]}, {journal, ""}});
    expect("newer", "recovered from an interrupted write", "another program blanks its journals",
           {{md5, older[md5]}, {seal, older[seal]}, {journal, std::string(512, '\0')}});
    expect("backed-up", "damaged, not rolled back", "a journal would make the file enormous",
           {{db, torn[db]}, {journal, enormous}});
    EXPECT_LE(readFile(paths::kLiveEvidence).size(), torn[db].size());
    expect("newer", "database sound", "the replacement has the name, not yet the sidecar",
           {{fresh_md5, good[md5]}, {md5, older[md5]}, {seal, ""}});
    expect("newer", "database sound", "a replacement is not needed",
           {{fresh, older[db]}, {fresh_md5, older[md5]}});
    expect("newer", "taken from its finished replacement", "a replacement waits for a damaged file",
           {{fresh, good[db]}, {fresh_md5, good[md5]}, {db, damaged}});
    expect("backed-up", "taken from the backup", "an unfinished replacement is none",
           {{fresh, good[db]}, {db, damaged}});
    expect(
        "newer", "used as it reads",
        "no sidecar and no backup: an older firmware's, or restored by hand",
        {{md5, gone}, {paths::kLiveEvidence, "another day"}, {backup, gone}, {backup_md5, gone}});
    expect("backed-up", "vouches for the backup",
           "the file cannot be read, the backup has no sidecar",
           {{db, std::string(good[db].size(), 'x')}, {backup_md5, gone}});
}

TEST_F(Life, AStartSealsAllThatItChanges) {
    const std::string one = leaf("a_passwd", "1");
    const std::string scrambled = leaf("encrypt_campass", "1"); // which the mark of the file denies
    for (const std::string& tree : {one, one + scrambled, leaf("b_passwd", "2") + scrambled}) {
        writeFile(paths::kNeutralTree, "<t><private type=\"trunk\">" + tree + "</private></t>");
        start();
        EXPECT_TRUE(checkConfigDBMD5() && untouchedSinceSealing());
    }
    EXPECT_EQ(live("private.a_passwd") + live("private.b_passwd"), "12");
    EXPECT_EQ(stored("private.b_passwd"), scrambledForm("2"));
}

std::string begun; // transactions of the live file: first letter, and whether the file was sealed

int noteBegin(unsigned /*kind*/, void* database, void* /*statement*/, void* text) {
    const std::string words = static_cast<const char*>(text);
    const char* path = sqlite3_db_filename(static_cast<sqlite3*>(database), "main");
    if (path == std::string{paths::kLiveDb} &&
        (words == "BEGIN TRANSACTION" || words == "VACUUM")) {
        begun += words.substr(0, 1) + (sealedAsItStands() ? '+' : '-');
    }
    return 0;
}

int traceOpened(sqlite3* database, char** /*error*/, const sqlite3_api_routines* /*api*/) {
    return sqlite3_trace_v2(database, SQLITE_TRACE_STMT, noteBegin, database);
}

// A commit that was not sealed and a transaction that is cut short, together, look like damage.
TEST_F(Life, EveryTransactionOfAStartFindsTheFileSealed) {
    writeTree(leaf("word", "default") + fillers(210));
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(traceOpened));
    start();
    sqlite3_reset_auto_extension();
    EXPECT_EQ(begun, "B+V+");
}

// Taken for one without a mark, plain passwords would be served as if they were scrambled.
TEST_F(Life, AFileThatCannotBeReadForAMomentHasItsMark) {
    std::filesystem::rename(paths::kLiveDb, "/mnt/nand/conf/away");
    std::filesystem::create_directory(paths::kLiveDb);
    EXPECT_FALSE(readStoredPasswords(paths::kLiveDb).whole);
    in_pause = [] {
        std::filesystem::remove(paths::kLiveDb);
        std::filesystem::rename("/mnt/nand/conf/away", paths::kLiveDb);
    };
    EXPECT_TRUE(readStoredPasswords(paths::kLiveDb).mark.present);
    in_pause = nullptr;
    pauses = 0;
}

TEST_F(Life, TheFileIsHeldWhileItIsLoaded) {
    forgetMemory();
    const LiveSource source = readyLiveStore([] { return false; });
    EXPECT_THROW(sql(paths::kLiveDb, "UPDATE CONFIG SET VALUE='other'"), std::runtime_error);
}

TEST_F(Life, NewNamesAreServedWhileTheFileIsLockedAndStoredLater) {
    writeTree(leaf("word", "default") + fillers(200) + leaf("added", "new"));
    {
        const auto other = otherDoes("BEGIN EXCLUSIVE");
        start();
        EXPECT_EQ(live("p.word") + live("p.added"), "newernew");
    }
    tendLiveStore(true);
    EXPECT_EQ(stored("p.word") + stored("p.added"), "newernew");
}

// ---- Under the service --------------------------------------------------------------------------

TEST_F(Life, AFileThatIsLostIsMadeAnewInThePass) {
    const auto expect = [&](const std::string& name, auto happen) {
        SCOPED_TRACE(name);
        happen();
        set({{"p.filler1", name}});
        EXPECT_NE(logged().find("made anew from memory"), std::string::npos);
        set({{"p.filler2", name}});
        start();
        EXPECT_EQ(live("p.word") + live("p.filler1") + live("p.filler2"), "newer" + name + name);
    };
    expect("deleted", [] { std::filesystem::remove(paths::kLiveDb); });
    expect("overwritten", [] { writeFile(paths::kLiveDb, std::string(12288, 'x')); });
    expect("older", [&] { writeFile(paths::kLiveDb, older[paths::kLiveDb]); });
    expect("changed by another", [] { sql(paths::kLiveDb, "UPDATE CONFIG SET VALUE='other'"); });
    expect("with an old journal", [] {
        const Flash torn = tornByTransaction();
        std::filesystem::remove(paths::kLiveDb);
        writeFile(paths::kLiveDbJournal, torn.at(paths::kLiveDbJournal));
    });
    EXPECT_EQ(pauses, 0) << "no row is tried on a lost file";
}

TEST_F(Life, OnlyAFileThatHoldsMemoryIsBackedUp) {
    const Values rots = {
        {"newer", "never"}, {kFiller, std::string(kFiller.size(), '\0')}, {"string", "String"}};
    for (const auto& [from, to] : rots) {
        rot(from, to);
        set({{"p.filler199", from}}); // sealed with what has rotted
        tendLiveStore(true);
        EXPECT_EQ(storedIn(paths::kBackupDb, "p.word"), "newer");
        EXPECT_EQ(storedIn(paths::kBackupDb, "p.filler199"), from);
        EXPECT_EQ(readFile(paths::kBackupDb), readFile(paths::kLiveDb));
        start();
        EXPECT_EQ(live("p.word"), "newer");
    }
}

TEST_F(Life, ABackupThatCannotBeWrittenIsTakenLater) {
    for (const char* refused : {paths::kBackupDb, paths::kBackupDbMd5}) {
        std::filesystem::remove(refused);
        std::filesystem::create_directory(refused);
        set({{"p.word", refused}});
        tendLiveStore(true);
        std::filesystem::remove(refused);
        tendLiveStore(true);
        EXPECT_EQ(storedIn(paths::kBackupDb, "p.word"), refused);
        EXPECT_TRUE(checkFileMD5(paths::kBackupDb, paths::kBackupDbMd5));
        EXPECT_EQ(backup_pending, 0);
    }
}

TEST_F(Life, WhatIsInMemoryOnlyIsNeverStored) {
    set({{"p.filler1", "stored"}});
    set({{"p.word", "passing"}, {"p.word", "passed"}}, setValueForSetAnswerListNoDBStore);
    noteUnstored("p.filler1", "owed"); // by a pass that failed; changed in memory since
    set({{"p.filler1", "passing"}}, setValueForSetAnswerListNoDBStore);
    setLiveFile(LiveFile::kLost);
    set({});
    EXPECT_EQ(stored("p.word") + stored("p.filler1"), "newerowed");
    EXPECT_EQ(live("p.word") + live("p.filler1"), "passedpassing");
    set({{"p.word", "kept"}});
    std::filesystem::remove(paths::kLiveDb);
    tendLiveStore(true);
    EXPECT_EQ(stored("p.word"), "kept");
}

TEST_F(Life, ATornFileIsNotSealed) {
    const Flash good = flashNow();
    putFlash(tornByTransaction());
    EXPECT_TRUE(sealLiveDatabase()) << "what was torn is undone first";
    EXPECT_EQ(readFile(paths::kLiveDb), good.at(paths::kLiveDb));
}

TEST_F(Life, AFileThatCannotBeHashedIsToldInThePass) {
    for (const char* lost : {paths::kLiveDb, "/mnt/nand/conf"}) {
        writeFile(paths::kLiveEvidence, "so that what is in the way stays there");
        std::filesystem::remove_all(lost);
        lost == paths::kLiveDb ? std::filesystem::create_directory(lost) : false;
        set({});
        EXPECT_NE(logged().find("create hash failed \n"), std::string::npos) << lost;
        std::filesystem::create_directories("/mnt/nand/conf");
    }
}

// ---- A storage that refuses ---------------------------------------------------------------------

TEST_F(Life, TheFirstRefusedRowGetsTenAttemptsTheOthersOne) {
    for (const int rows : {1, 3}) {
        Values values;
        for (int i = 0; i < rows; ++i) {
            values.emplace_back("p.filler" + std::to_string(i), std::to_string(rows));
        }
        {
            const auto other = otherDoes("BEGIN EXCLUSIVE");
            log.take();
            pauses = 0;
            set(values);
            EXPECT_EQ(timesIn(logged(), "SQL error: "), rows == 1 ? 10 : 1 + 10 + rows - 1)
                << "the transaction counts as one";
            tendLiveStore(true);
            EXPECT_EQ(pauses, 10) << "the upkeep asks once, and waits for nothing";
        }
        tendLiveStore(true);
        EXPECT_EQ(stored("p.filler0"), std::to_string(rows));
        EXPECT_TRUE(checkConfigDBMD5());
    }
}

TEST_F(Life, OneRowThatIsRefusedDoesNotTakeTheOthersWithIt) {
    sql(paths::kLiveDb, "CREATE TRIGGER t BEFORE UPDATE ON CONFIG WHEN NEW.NAME='p.filler1' "
                        "BEGIN SELECT RAISE(FAIL,'no'); END");
    settleLiveDatabase();
    set({{"p.filler0", "a"}, {"p.filler1", "b"}, {"p.filler2", "c"}, {"p.filler0", "d"}});
    EXPECT_EQ(stored("p.filler0") + stored("p.filler1") + stored("p.filler2"), "d" + kFiller + "c");
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
    set({{"p.a_passwd", "passing"}}, setValueForSetAnswerListNoDBStore);
    pauses = 0;
    {
        const auto reader = holdForReading(paths::kLiveDb);
        tendLiveStore(true);
    }
    EXPECT_EQ(pauses, 0) << "with all locks held";
    tendLiveStore(true);
    EXPECT_EQ(stored("p.a_passwd"), scrambledForm("1"));
    EXPECT_EQ(stored(kPasswordSwitch), "1");
    start();
    EXPECT_EQ(live("p.a_passwd"), "1");
}

} // namespace
} // namespace kelconf::test
