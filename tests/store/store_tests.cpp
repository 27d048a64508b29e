// Default table, sidecars and builders on the device's own paths: files, rows and log records.

#include "db/default_db.h"
#include "files/md5_sidecar.h"
#include "files/storage_fault.h"
#include "paths.h"
#include "support/files.h"
#include "support/records.h"
#include "text/text.h"
#include "tree/conf_builders.h"
#include "tree/xitem.h"

#include <gtest/gtest.h>
#include <md5.h>

#include <filesystem>
#include <functional>
#include <memory>

namespace kelconf::test {
namespace {

using Records = std::vector<std::string>;
constexpr const char* kNoTable = "2 SQL error: no such table: CONFIGDEFAULT\n";
constexpr const char* kCannotOpen = "0 Can't open database: unable to open database file\n";
constexpr const char* kChecking = "0 checking /mnt/nand/conf/default.db integrity\n";

std::string md5Of(const std::string& bytes) {
    MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    std::string digest(16, '\0');
    MD5Final(reinterpret_cast<unsigned char*>(digest.data()), &context);
    return digest;
}

class Store : public testing::Test {
  protected:
    void SetUp() override {
        resetDevice();
        clearStorageFault();
        log.take();
    }

    // Every record since the last call, as "LEVEL TEXT", and that both sinks agree on them.
    Records logged() { return sameInBothSinks(log.take()); }

    static void add(const char* name, const char* value) {
        const xitem item{newText(name),      newText(value),    newText("type'"),
                         newText("range\""), newText("step"),   newText("options;"),
                         newText("mode"),    newText("access"), 0};
        ASSERT_EQ(addXitemElement(&item), 1);
    }

    DeviceLog log;
};

// ---- The default table ----

TEST_F(Store, CreatesTheTableAsDescribed) {
    for (const Records& records : {Records{"0 Table created successfully\n"}, Records{}}) {
        createDefaultSQLTable();
        EXPECT_EQ(logged(), records);
        EXPECT_EQ(
            sql(paths::kDefaultDb, "SELECT sql FROM sqlite_schema WHERE type='table'"),
            (SqlRows{{"CREATE TABLE CONFIGDEFAULT( NAME  TEXT  PRIMARY KEY  ,VALUE TEXT          "
                      "     ,TYPE TEXT               ,RANGE TEXT           ,STEP TEXT           "
                      ",HTTP_ACCESS TEXT           ,OPTIONS TEXT          )"}}));
    }
}

TEST_F(Store, WritesTextsExactlyAndTheFirstOfTwoNames) {
    const std::string texts[] = {"", "it''s \" %s%n?1:a@b$c", "'); DROP TABLE CONFIGDEFAULT; --",
                                 "\xc3\xbc\n\t ", std::string(1 << 20, 'y') + "'"};
    createDefaultSQLTable();
    initXitemList();
    SqlRows expected;
    for (const std::string& text : texts) {
        const std::string name = "n'" + std::to_string(expected.size());
        add(name.c_str(), text.c_str());
        expected.push_back({name, text, "type'", "range\"", "step", "access", "options;"});
    }
    add("n'0", "second");
    log.take();
    EXPECT_EQ(insertDefaultSQLEntry(), 1);
    delXitemList();
    EXPECT_EQ(logged(), Records{"2 SQL error: UNIQUE constraint failed: CONFIGDEFAULT.NAME\n"});
    EXPECT_EQ(sql(paths::kDefaultDb, "SELECT NAME,VALUE,TYPE,RANGE,STEP,HTTP_ACCESS,OPTIONS FROM "
                                     "CONFIGDEFAULT ORDER BY rowid"),
              expected);
    EXPECT_FALSE(storageFaultNoted()) << "a refused duplicate is ordinary";
}

// Fills, scans and compacts what stands in the database's place.
TEST_F(Store, WhatStandsInTheWayIsLoggedAndNoted) {
    std::unique_ptr<sqlite3, decltype(&sqlite3_close)> lock(nullptr, sqlite3_close);
    const struct {
        std::function<void()> make;
        std::int32_t filled;
        Records records;
    } cases[] = {
        {[] {}, 1, {kNoTable, kNoTable, kChecking, std::string(kNoTable).replace(0, 1, "0")}},
        {[&] {
             sqlite3* other = nullptr;
             sqlite3_open(paths::kDefaultDb, &other);
             lock.reset(other);
             sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
         },
         1,
         {"2 PRAGMA NORMAL error:database is locked\n", "2 SQL error: database is locked\n",
          "2 SQL error: database is locked\n", kChecking, "0 SQL error: database is locked\n",
          "2 execute vacuum error\n"}},
        {[] {
             std::filesystem::remove(paths::kDefaultDb);
             std::filesystem::create_directory(paths::kDefaultDb);
         },
         0,
         {kCannotOpen, kChecking, kCannotOpen, "2 database open error\n"}},
    };
    for (const auto& c : cases) {
        clearStorageFault();
        c.make();
        initXitemList();
        add("a", "1");
        add("b", "2");
        EXPECT_EQ(insertDefaultSQLEntry(), c.filled);
        delXitemList();
        EXPECT_TRUE(storageFaultNoted());
        EXPECT_EQ(checkDefaultDataBaseIntegrity(paths::kDefaultDb), 0);
        shrinkDB(paths::kDefaultDb);
        EXPECT_EQ(logged(), c.records);
    }
}

TEST_F(Store, IntegrityIsAFullScan) {
    const std::string path = paths::kDefaultDb;
    writeFile(path, "no database at all, but long enough to be read as the head of one.......");
    EXPECT_EQ(checkDefaultDataBaseIntegrity(path.c_str()), 0);
    EXPECT_EQ(logged(), (Records{kChecking, "0 SQL error: file is not a database\n"}));
    std::filesystem::remove(path);
    createDefaultSQLTable();
    sql(path, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n LIMIT 2000)"
              " INSERT INTO CONFIGDEFAULT SELECT i,i,i,i,i,i,i FROM n");
    EXPECT_EQ(checkDefaultDataBaseIntegrity(path.c_str()), 1);
    std::filesystem::resize_file(path, std::filesystem::file_size(path) / 2);
    EXPECT_EQ(checkDefaultDataBaseIntegrity(path.c_str()), 0) << "cut in the middle";
}

TEST_F(Store, ShrinkGivesPagesBack) {
    createDefaultSQLTable();
    sql(paths::kDefaultDb, "INSERT INTO CONFIGDEFAULT(NAME,VALUE) VALUES('a',zeroblob(100000));"
                           "DELETE FROM CONFIGDEFAULT");
    shrinkDB(paths::kDefaultDb);
    EXPECT_EQ(sql(paths::kDefaultDb, "PRAGMA freelist_count"), (SqlRows{{"0"}}));
}

// ---- Sidecars ----

constexpr const char* kFile = "/mnt/nand/conf/guarded";
constexpr const char* kSeal = "/mnt/nand/conf/guarded.md5";

TEST_F(Store, SidecarIsTheRawDigestAndWhatFollowsItStays) {
    for (const std::size_t size : {0U, 64U, 131072U, 1000003U}) {
        const std::string content(size, 'k');
        writeFile(kFile, content);
        EXPECT_TRUE(createFileMD5(kFile, kSeal));
        EXPECT_EQ(readFile(kSeal), md5Of(content)) << size;
    }
    EXPECT_EQ(std::filesystem::status(kSeal).permissions(), std::filesystem::perms(0644));
    writeFile(kFile, "content");
    const std::string digest = md5Of("content");
    const std::pair<std::string, bool> cases[] = {
        {digest, true},
        {digest + "more", true},
        {"", false},
        {digest.substr(0, 15), false},
        {std::string(16, '\0'), false},
        {digest.substr(0, 15) + static_cast<char>(digest[15] ^ 1), false},
    };
    for (const auto& [content, matches] : cases) {
        writeFile(kSeal, content);
        EXPECT_EQ(checkFileMD5(kFile, kSeal), matches) << content;
    }
    writeFile(kSeal, std::string(16, 'o') + "tail");
    EXPECT_TRUE(createFileMD5(kFile, kSeal));
    EXPECT_TRUE(logged().empty());
    std::filesystem::remove(kFile);
    EXPECT_FALSE(createFileMD5(kFile, kSeal));
    EXPECT_EQ(logged(), Records{"2 create hash failed \n"});
    EXPECT_EQ(readFile(kSeal), digest + "tail");
    writeFile(kFile, "content");
    std::filesystem::remove(kSeal);
    std::filesystem::create_directory(kSeal);
    EXPECT_FALSE(checkFileMD5(kFile, kSeal));
    EXPECT_FALSE(createFileMD5(kFile, kSeal));
    EXPECT_TRUE(logged().empty()) << "a sidecar that cannot be opened is silent";
}

TEST_F(Store, GuardedPairs) {
    const struct {
        bool (*check)();
        const char *file, *seal, *without_seal, *mismatch; // records, the latter without file too
    } pairs[] = {
        {checkDefaultConfigDBMD5, paths::kDefaultDb, paths::kDefaultDbMd5, nullptr,
         "2 default database MD5 checksum error\n"},
        {checkConfigDBMD5, paths::kLiveDb, paths::kLiveDbMd5, nullptr,
         "2 Config database MD5 checksum error\n"},
        {checkConfigBackupDBMD5, paths::kBackupDb, paths::kBackupDbMd5, nullptr,
         "2 backup database MD5 checksum error\n"},
        {checkXMLFileStatus, paths::kNeutralTree, paths::kNeutralTreeMd5, "0 XMl has new update\n",
         "0 XMl has new update\n"},
        {checkExtXMLFileStatus, paths::kExtTree, paths::kExtTreeMd5, "0 Ext XMl has new update\n",
         "0 Ext XMl has new update\n"},
    };
    for (const auto& pair : pairs) {
        SCOPED_TRACE(pair.file);
        const auto expect = [&](bool result, const char* text) {
            EXPECT_EQ(pair.check(), result);
            EXPECT_EQ(logged(), text == nullptr ? Records{} : Records{text});
        };
        writeFile(pair.file, "content");
        expect(false, pair.without_seal);
        createFileMD5(pair.file, pair.seal);
        expect(true, nullptr);
        writeFile(pair.file, "Content");
        expect(false, pair.mismatch);
        std::filesystem::remove(pair.file);
        expect(false, pair.mismatch);
    }
}

TEST_F(Store, Presence) {
    const struct {
        bool (*check)();
        const char* path;
        Records absent;
    } cases[] = {
        {checkDefaultFile, paths::kDefaultDb, {"0 default file missing\n"}},
        {checkConfFile, paths::kLiveDb, {"0 conf file missing\n"}},
        {checkConfBackupFile, paths::kBackupDb, {"0 conf backup file missing\n"}},
        {extTreeFileExist, paths::kExtTree, {}},
    };
    for (const auto& c : cases) {
        EXPECT_FALSE(c.check());
        EXPECT_EQ(logged(), c.absent);
        std::filesystem::create_directory(c.path);
        EXPECT_TRUE(c.check()) << "whatever kind of file it is";
        EXPECT_TRUE(logged().empty());
    }
    EXPECT_FALSE(storageFaultNoted());
}

// ---- Builders of the live table ----

constexpr const char* kLiveTable = "CREATE TABLE CONFIG( NAME  TEXT  PRIMARY KEY  ,VALUE TEXT      "
                                   "         ,TYPE  TEXT           )";
constexpr const char* kAllLive = "SELECT NAME,VALUE,TYPE FROM CONFIG ORDER BY NAME";

TEST_F(Store, LiveBuilderAddsWhatIsMissing) {
    sql(paths::kLiveDb, kLiveTable);
    sql(paths::kLiveDb, "INSERT INTO CONFIG VALUES('private.kept','mine','string')");
    writeFile(paths::kNeutralTree,
              "<r><ipcam type='trunk'><video type='branch'><x type='int'>1</x></video></ipcam>"
              "<IPCAM type='trunk'><x type='int'>1</x></IPCAM>"
              "<ipcamera type='trunk'><x type='int'>2</x></ipcamera>"
              "<private type='trunk'><kept type='int'>theirs</kept><q type='s'>it's</q>"
              "<q type='s'>second</q></private></r>");
    for (int run = 0; run < 2; ++run) {
        initXitemList();
        createConf();
        EXPECT_EQ(logged(), Records{"0 insert finishes\n"});
        EXPECT_EQ(sql(paths::kLiveDb, kAllLive), (SqlRows{{"ipcamera.x", "2", "int"},
                                                          {"private.kept", "mine", "string"},
                                                          {"private.q", "it's", "s"}}));
    }
    EXPECT_FALSE(storageFaultNoted());
}

TEST_F(Store, LiveBuilderOfAnExtension) {
    const struct {
        void (*make)();
        const char* tree;
        Records records;
        bool fault;
    } cases[] = {
        {[] { sql(paths::kLiveDb, kLiveTable); },
         "<r><t type='trunk'>\n<m type='multiple_instance' number='2147483647'>"
         "<x type='i'/></m></t></r>",
         {"2 tree over the expansion limit: 1 elements left out or not repeated, first t.m in line "
          "2\n",
          "0 insert finishes\n"},
         false},
        {[] { sql(paths::kLiveDb, "DROP TABLE CONFIG"); },
         "<r><t type='trunk'><x type='int'>1</x></t></r>",
         {"0 insert finishes\n"}, // each row fails without a message
         true},
        {[] {
             std::filesystem::remove(paths::kLiveDb);
             std::filesystem::create_directory(paths::kLiveDb);
         },
         "<r/>",
         {kCannotOpen, "2 database open error\n"},
         true},
        // No compaction, no table touched.
        {[] {}, "<r>", {"2 error: could not parse file "}, false},
    };
    for (const auto& c : cases) {
        clearStorageFault();
        c.make();
        writeFile(paths::kExtTree, c.tree);
        initXitemList();
        createExtConf();
        EXPECT_EQ(logged(), c.records);
        EXPECT_EQ(storageFaultNoted(), c.fault);
    }
    EXPECT_EQ(CheckXitemListLength(), 0);
    delXitemList();
}

TEST_F(Store, NeutralTreeThatCannotBeParsedEndsTheProcess) {
    for (void (*build)() : {+[] { createDefaultConf(); }, +[] { createConf(); }}) {
        const auto end = [&] {
            initXitemList();
            build();
            std::_Exit(1);
        };
        EXPECT_EXIT(end(), testing::ExitedWithCode(0), "");
        EXPECT_EQ(logged(), Records{"2 error: could not parse file "});
    }
}

TEST_F(Store, DumpShowsEveryField) {
    initXitemList();
    add("n", "v");
    dumpXitemlist();
    delXitemList();
    EXPECT_EQ(logged(), Records{"0 0 name:n value:v type:type' range:range\" step:step "
                                "options:options; mode:mode http_access:access \n"});
}

} // namespace
} // namespace kelconf::test
