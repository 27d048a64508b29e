// kelconf-init as a whole, on the device's own paths.

#include "files/md5_sidecar.h"
#include "paths.h"
#include "support/files.h"
#include "support/records.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

namespace kelconf::test {
namespace {

constexpr const char* kNeutral =
    "<r><ipcam type='trunk'><a type='int' range='0,9'>1</a>"
    "<s type='multiple_instance' number='2'><l type='string'>S%auto</l></s></ipcam>"
    "<private type='trunk'><p type='password'>it's</p></private></r>";
constexpr const char* kExt =
    "<r><ipcam type='trunk'><a type='int'>other</a></ipcam><own type='trunk'><x type='int'>5</x>"
    "</own></r>";
constexpr const char* kNames = "SELECT NAME,VALUE FROM CONFIGDEFAULT ORDER BY rowid";

const SqlRows kNeutralRows = {{"ipcam.a", "1"},
                              {"ipcam.s.number", "2"},
                              {"ipcam.s.1.l", "S1"},
                              {"ipcam.s.2.l", "S2"},
                              {"private.p", "it's"}};

const std::vector<std::string> kFoundSound = {"0 checking /mnt/nand/conf/default.db integrity\n"};

std::vector<std::string> buildRecords(std::vector<std::string> first,
                                      const std::vector<std::string>& last = {}) {
    for (const char* record : {"0 Creating default database\n", "0 Table created successfully\n",
                               "0 Done creating default DB\n"}) {
        first.emplace_back(record);
    }
    first.insert(first.end(), last.begin(), last.end());
    return first;
}

class Init : public testing::Test {
  protected:
    void SetUp() override {
        resetDevice();
        writeFile(paths::kNeutralTree, kNeutral);
        log.take();
    }

    // Runs the program and returns what it logged; whatever happens, its status is 0 and its
    // standard output empty.
    std::vector<std::string> run() {
        const ProgramResult result = runProgram("kelconf-init");
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, "");
        reports = result.err;
        return sameInBothSinks(log.take());
    }

    static void expectSealed(const SqlRows& rows) {
        EXPECT_TRUE(checkFileMD5(paths::kDefaultDb, paths::kDefaultDbMd5));
        EXPECT_EQ(sql(paths::kDefaultDb, kNames), rows);
        EXPECT_EQ(sql(paths::kDefaultDb, "PRAGMA freelist_count"), (SqlRows{{"0"}}));
        for (const auto& entry : std::filesystem::directory_iterator("/mnt/nand/conf")) {
            const std::string name = entry.path().filename();
            EXPECT_TRUE(name == "default.db" || name == "default.db.md5") << name;
        }
    }

    DeviceLog log;
    std::string reports; // standard error of the last run
};

TEST_F(Init, BuildsThenFindsItSoundAndTouchesNothing) {
    EXPECT_EQ(run(), buildRecords({"0 default file missing\n"}));
    EXPECT_EQ(reports, "");
    expectSealed(kNeutralRows);

    struct stat before {};
    stat(paths::kDefaultDb, &before);
    writeFile(paths::kNeutralTree, kExt); // a changed tree alone rebuilds nothing
    EXPECT_EQ(run(), kFoundSound);
    struct stat after {};
    stat(paths::kDefaultDb, &after);
    EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
    EXPECT_EQ(before.st_ino, after.st_ino);
    expectSealed(kNeutralRows);
}

TEST_F(Init, ExtensionTreeAddsAndCannotRedefine) {
    writeFile(paths::kExtTree, kExt);
    EXPECT_EQ(run(), buildRecords({"0 default file missing\n"},
                                  {"2 SQL error: UNIQUE constraint failed: CONFIGDEFAULT.NAME\n"}));
    SqlRows rows = kNeutralRows;
    rows.push_back({"own.x", "5"});
    expectSealed(rows);
    EXPECT_EQ(run(), kFoundSound);
}

TEST_F(Init, ExtensionTreeThatCannotBeParsedIsLeftOut) {
    for (const char* ext : {"", "<r>", "<r><own type='trunk'><x type='int'>5</x></own>"}) {
        std::filesystem::remove(paths::kDefaultDb);
        writeFile(paths::kExtTree, ext);
        EXPECT_EQ(run(),
                  buildRecords({"0 default file missing\n"}, {"2 error: could not parse file "}));
        EXPECT_NE(reports, "") << "libxml2 says where";
        expectSealed(kNeutralRows);
    }
    std::filesystem::remove(paths::kExtTree);
    std::filesystem::remove(paths::kDefaultDb);
    std::filesystem::create_directory(paths::kExtTree);
    run();
    expectSealed(kNeutralRows);
}

TEST_F(Init, NeutralTreeThatCannotBeParsedLeavesNoSeal) {
    std::filesystem::remove(paths::kNeutralTree);
    std::vector<std::string> expected = {
        "0 default file missing\n", "0 Creating default database\n",
        "0 Table created successfully\n", "2 error: could not parse file "};
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(run(), expected);
        EXPECT_FALSE(exists(paths::kDefaultDbMd5));
        EXPECT_EQ(sql(paths::kDefaultDb, kNames), SqlRows{});
        if (attempt == 0) {
            expected.erase(expected.begin()); // the file is there now, without a seal
        }
    }
    writeFile(paths::kNeutralTree, kNeutral);
    run();
    expectSealed(kNeutralRows);
}

TEST_F(Init, DamageIsFoundAndRepaired) {
    run();
    const std::string sound = readFile(paths::kDefaultDb);
    const std::string seal = readFile(paths::kDefaultDbMd5);
    const std::string mismatch = "2 default database MD5 checksum error\n";

    std::string flipped = sound;
    flipped[flipped.size() - 100] = static_cast<char>(flipped[flipped.size() - 100] ^ 1);
    for (const std::string& damaged : {flipped, sound.substr(0, sound.size() / 2), std::string(),
                                       sound + '\0', std::string(5000, 'x')}) {
        writeFile(paths::kDefaultDb, damaged);
        EXPECT_EQ(run(), buildRecords({mismatch}));
        expectSealed(kNeutralRows);
    }
    for (const std::string& bad_seal : {std::string(), seal.substr(0, 15), std::string(16, 'x')}) {
        writeFile(paths::kDefaultDbMd5, bad_seal);
        EXPECT_EQ(run(), buildRecords({mismatch}));
        expectSealed(kNeutralRows);
    }
    std::filesystem::remove(paths::kDefaultDbMd5);
    EXPECT_EQ(run(), buildRecords({})) << "an absent sidecar has no message";
    expectSealed(kNeutralRows);

    // A sealed file that is no such database: only the scan can tell.
    std::filesystem::remove(paths::kDefaultDb);
    sql(paths::kDefaultDb, "CREATE TABLE OTHER(X)");
    createFileMD5(paths::kDefaultDb, paths::kDefaultDbMd5);
    EXPECT_EQ(run(), buildRecords({kFoundSound[0], "0 SQL error: no such table: CONFIGDEFAULT\n"}));
    expectSealed(kNeutralRows);
}

TEST_F(Init, AnEmptyTableUnderASealIsSound) {
    writeFile(paths::kNeutralTree, "<r/>");
    run();
    expectSealed({});
    EXPECT_EQ(run(), kFoundSound);
}

TEST_F(Init, WhatLiesBesideTheDatabaseIsNeverRolledIn) {
    for (const char* suffix : {"-journal", "-wal", "-shm"}) {
        SCOPED_TRACE(suffix);
        std::filesystem::remove(paths::kDefaultDb);
        run();
        writeFile(std::string(paths::kDefaultDb) + suffix, std::string(4096, 'j'));
        EXPECT_EQ(run(), buildRecords({"2 unfinished journal beside the default database\n"}));
        expectSealed(kNeutralRows);
        EXPECT_EQ(run(), kFoundSound);
    }
}

TEST_F(Init, ADirectoryInTheDatabasesPlace) {
    std::filesystem::create_directory(paths::kDefaultDb);
    const auto records = run();
    EXPECT_EQ(records.back(), "2 default database incomplete, not sealed\n");
    EXPECT_FALSE(exists(paths::kDefaultDbMd5));
}

} // namespace
} // namespace kelconf::test
