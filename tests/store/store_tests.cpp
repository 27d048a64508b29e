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

namespace kelconf::test {
namespace {

const std::string kAllDefaults =
    "SELECT NAME,VALUE,TYPE,RANGE,STEP,HTTP_ACCESS,OPTIONS FROM CONFIGDEFAULT ORDER BY rowid";

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
    std::vector<std::string> logged() { return sameInBothSinks(log.take()); }

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
    createDefaultSQLTable();
    EXPECT_EQ(logged(), std::vector<std::string>{"0 Table created successfully\n"});
    EXPECT_EQ(sql(paths::kDefaultDb, "SELECT sql FROM sqlite_schema WHERE type='table'"),
              (SqlRows{{"CREATE TABLE CONFIGDEFAULT( NAME  TEXT  PRIMARY KEY  ,VALUE TEXT          "
                        "     ,TYPE TEXT               ,RANGE TEXT           ,STEP TEXT           "
                        ",HTTP_ACCESS TEXT           ,OPTIONS TEXT          )"}}));
    const std::string before = readFile(paths::kDefaultDb);
    createDefaultSQLTable();
    EXPECT_TRUE(logged().empty());
    EXPECT_EQ(readFile(paths::kDefaultDb), before);
}

TEST_F(Store, WritesTextsExactlyAndTheFirstOfTwoNames) {
    const std::vector<std::string> texts = {"plain",
                                            "",
                                            "it's",
                                            "''",
                                            "a\"b",
                                            "'); DROP TABLE CONFIGDEFAULT; --",
                                            "%s%n?1:a@b$c",
                                            "\xc3\xbc\n\t ",
                                            std::string(5000, 'x') + "'",
                                            std::string(1 << 20, 'y')};
    createDefaultSQLTable();
    initXitemList();
    SqlRows expected;
    for (std::size_t i = 0; i < texts.size(); ++i) {
        const std::string name = "n'" + std::to_string(i);
        add(name.c_str(), texts[i].c_str());
        expected.push_back({name, texts[i], "type'", "range\"", "step", "access", "options;"});
    }
    add("n'0", "second");
    log.take();
    EXPECT_EQ(insertDefaultSQLEntry(), 1);
    delXitemList();
    EXPECT_EQ(logged(), std::vector<std::string>{
                            "2 SQL error: UNIQUE constraint failed: CONFIGDEFAULT.NAME\n"});
    EXPECT_EQ(sql(paths::kDefaultDb, kAllDefaults), expected);
    EXPECT_FALSE(storageFaultNoted()) << "a refused duplicate is ordinary";
}

TEST_F(Store, WithoutTheTableEveryRowFailsAndIsAFault) {
    initXitemList();
    add("a", "1");
    add("b", "2");
    EXPECT_EQ(insertDefaultSQLEntry(), 1);
    delXitemList();
    EXPECT_EQ(logged(), (std::vector<std::string>{"2 SQL error: no such table: CONFIGDEFAULT\n",
                                                  "2 SQL error: no such table: CONFIGDEFAULT\n"}));
    EXPECT_TRUE(storageFaultNoted());
}

TEST_F(Store, EmptyListIsATransactionToo) {
    createDefaultSQLTable();
    initXitemList();
    EXPECT_EQ(insertDefaultSQLEntry(), 1);
    delXitemList();
    EXPECT_EQ(checkDefaultDataBaseIntegrity(paths::kDefaultDb), 1);
    EXPECT_FALSE(storageFaultNoted());
}

TEST_F(Store, ALockHeldElsewhereFailsAtOnce) {
    createDefaultSQLTable();
    sqlite3* other = nullptr;
    sqlite3_open(paths::kDefaultDb, &other);
    sqlite3_exec(other, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr);
    initXitemList();
    add("a", "1");
    log.take();
    EXPECT_EQ(insertDefaultSQLEntry(), 1);
    shrinkDB(paths::kDefaultDb);
    EXPECT_EQ(checkDefaultDataBaseIntegrity(paths::kDefaultDb), 0);
    delXitemList();
    sqlite3_close(other);
    EXPECT_EQ(logged(),
              (std::vector<std::string>{
                  "2 PRAGMA NORMAL error:database is locked\n", "2 SQL error: database is locked\n",
                  "2 execute vacuum error\n", "0 checking /mnt/nand/conf/default.db integrity\n",
                  "0 SQL error: database is locked\n"}));
    EXPECT_TRUE(storageFaultNoted());
}

TEST_F(Store, WhatCannotBeOpened) {
    std::filesystem::create_directory(paths::kDefaultDb);
    initXitemList();
    createDefaultSQLTable();
    EXPECT_EQ(insertDefaultSQLEntry(), 0);
    delXitemList();
    EXPECT_EQ(checkDefaultDataBaseIntegrity(paths::kDefaultDb), 0);
    shrinkDB(paths::kDefaultDb);
    EXPECT_EQ(logged(),
              (std::vector<std::string>{"0 Can't open database: unable to open database file\n",
                                        "0 checking /mnt/nand/conf/default.db integrity\n",
                                        "0 Can't open database: unable to open database file\n",
                                        "2 database open error\n"}));
}

TEST_F(Store, IntegrityIsAFullScan) {
    const std::string path = "/mnt/nand/conf/x.db";
    EXPECT_EQ(checkDefaultDataBaseIntegrity(path.c_str()), 0) << "created empty";
    EXPECT_TRUE(exists(path));
    EXPECT_EQ(logged(), (std::vector<std::string>{"0 checking /mnt/nand/conf/x.db integrity\n",
                                                  "0 SQL error: no such table: CONFIGDEFAULT\n"}));
    writeFile(path, "no database at all, but long enough to be read as the head of one.......");
    EXPECT_EQ(checkDefaultDataBaseIntegrity(path.c_str()), 0);
    EXPECT_EQ(logged().back(), "0 SQL error: file is not a database\n");

    createDefaultSQLTable();
    sql(paths::kDefaultDb,
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n LIMIT 2000)"
        " INSERT INTO CONFIGDEFAULT SELECT i,i,i,i,i,i,i FROM n");
    EXPECT_EQ(checkDefaultDataBaseIntegrity(paths::kDefaultDb), 1);
    std::string bytes = readFile(paths::kDefaultDb);
    bytes.resize(bytes.size() / 2);
    writeFile(paths::kDefaultDb, bytes);
    EXPECT_EQ(checkDefaultDataBaseIntegrity(paths::kDefaultDb), 0) << "cut in the middle";
}

TEST_F(Store, ShrinkGivesPagesBack) {
    createDefaultSQLTable();
    sql(paths::kDefaultDb, "INSERT INTO CONFIGDEFAULT(NAME,VALUE) VALUES('a',zeroblob(100000));"
                           "DELETE FROM CONFIGDEFAULT");
    const auto before = std::filesystem::file_size(paths::kDefaultDb);
    shrinkDB(paths::kDefaultDb);
    EXPECT_LT(std::filesystem::file_size(paths::kDefaultDb), before / 4);
    EXPECT_EQ(sql(paths::kDefaultDb, "PRAGMA freelist_count"), (SqlRows{{"0"}}));
}

// ---- Sidecars ----

TEST_F(Store, SidecarIsTheRawDigest) {
    const std::string file = "/mnt/nand/conf/guarded";
    const std::string seal = "/mnt/nand/conf/guarded.md5";
    for (const std::size_t size : {0U, 1U, 64U, 131072U, 1000003U}) {
        const std::string content(size, 'k');
        writeFile(file, content);
        createFileMD5(file.c_str(), seal.c_str());
        EXPECT_EQ(readFile(seal), md5Of(content)) << size;
        EXPECT_TRUE(checkFileMD5(file.c_str(), seal.c_str()));
    }
    EXPECT_EQ(std::filesystem::status(seal).permissions(), std::filesystem::perms(0644));
    EXPECT_TRUE(logged().empty());
}

TEST_F(Store, SidecarsThatMatchAndThatDoNot) {
    const std::string file = "/mnt/nand/conf/guarded";
    const std::string seal = "/mnt/nand/conf/guarded.md5";
    writeFile(file, "content");
    const std::string digest = md5Of("content");
    std::string hex;
    for (const char byte : digest) {
        constexpr const char* kDigits = "0123456789abcdef";
        hex += kDigits[static_cast<unsigned char>(byte) >> 4U];
        hex += kDigits[static_cast<unsigned char>(byte) & 15U];
    }
    const std::pair<std::string, bool> cases[] = {
        {digest, true},
        {digest + "more", true},
        {hex, false},
        {"", false},
        {digest.substr(0, 15), false},
        {std::string(16, '\0'), false},
        {digest.substr(1) + digest[0], false},
    };
    for (const auto& [content, matches] : cases) {
        writeFile(seal, content);
        EXPECT_EQ(checkFileMD5(file.c_str(), seal.c_str()), matches) << content;
    }
    std::filesystem::remove(seal);
    std::filesystem::create_directory(seal);
    EXPECT_FALSE(checkFileMD5(file.c_str(), seal.c_str()));
    createFileMD5(file.c_str(), seal.c_str());
    EXPECT_TRUE(logged().empty()) << "a sidecar that cannot be opened is silent";
}

TEST_F(Store, RewritingASidecarKeepsWhatFollowsTheDigest) {
    const std::string file = "/mnt/nand/conf/guarded";
    const std::string seal = "/mnt/nand/conf/guarded.md5";
    writeFile(file, "content");
    writeFile(seal, std::string(16, 'o') + "tail");
    createFileMD5(file.c_str(), seal.c_str());
    EXPECT_EQ(readFile(seal), md5Of("content") + "tail");
    std::filesystem::remove(file);
    createFileMD5(file.c_str(), seal.c_str());
    std::filesystem::create_directory(file);
    createFileMD5(file.c_str(), seal.c_str());
    EXPECT_EQ(logged(),
              (std::vector<std::string>{"2 create hash failed \n", "2 create hash failed \n"}));
    EXPECT_EQ(readFile(seal), md5Of("content") + "tail");
}

struct Pair {
    bool (*check)();
    const char *file, *seal;
    const char* without_seal; // record when only the file is there
    const char* mismatch;     // record when they differ, or the file is missing
};

TEST_F(Store, GuardedPairs) {
    const Pair pairs[] = {
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
    const auto records = [](const char* text) {
        return text == nullptr ? std::vector<std::string>{} : std::vector<std::string>{text};
    };
    for (const Pair& pair : pairs) {
        SCOPED_TRACE(pair.file);
        writeFile(pair.file, "content");
        EXPECT_FALSE(pair.check());
        EXPECT_EQ(logged(), records(pair.without_seal));
        createFileMD5(pair.file, pair.seal);
        EXPECT_TRUE(pair.check());
        EXPECT_TRUE(logged().empty());
        writeFile(pair.file, "Content");
        EXPECT_FALSE(pair.check());
        EXPECT_EQ(logged(), records(pair.mismatch));
        std::filesystem::remove(pair.file);
        EXPECT_FALSE(pair.check());
        EXPECT_EQ(logged(), records(pair.mismatch));
    }
}

TEST_F(Store, Presence) {
    const struct {
        bool (*check)();
        const char *path, *record;
    } cases[] = {
        {checkDefaultFile, paths::kDefaultDb, "0 default file missing\n"},
        {checkConfFile, paths::kLiveDb, "0 conf file missing\n"},
        {checkConfBackupFile, paths::kBackupDb, "0 conf backup file missing\n"},
    };
    for (const auto& c : cases) {
        EXPECT_FALSE(c.check());
        EXPECT_EQ(logged(), std::vector<std::string>{c.record});
        std::filesystem::create_directory(c.path);
        EXPECT_TRUE(c.check()) << "whatever kind of file it is";
    }
    EXPECT_FALSE(extTreeFileExist());
    writeFile(paths::kExtTree, "");
    EXPECT_TRUE(extTreeFileExist());
    EXPECT_TRUE(logged().empty());
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
    const SqlRows expected = {
        {"ipcamera.x", "2", "int"}, {"private.kept", "mine", "string"}, {"private.q", "it's", "s"}};
    for (int run = 0; run < 2; ++run) {
        initXitemList();
        createConf();
        EXPECT_EQ(logged(), std::vector<std::string>{"0 insert finishes\n"});
        EXPECT_EQ(sql(paths::kLiveDb, kAllLive), expected);
    }
    EXPECT_FALSE(storageFaultNoted());
}

TEST_F(Store, LiveBuilderFailures) {
    writeFile(paths::kExtTree, "<r><t type='trunk'><x type='int'>1</x></t></r>");
    initXitemList();
    createExtConf(); // no table: every row fails without a message
    EXPECT_EQ(logged(), std::vector<std::string>{"0 insert finishes\n"});
    EXPECT_TRUE(storageFaultNoted());

    std::filesystem::remove(paths::kLiveDb);
    std::filesystem::create_directory(paths::kLiveDb);
    initXitemList();
    createExtConf();
    EXPECT_EQ(logged(),
              (std::vector<std::string>{"0 Can't open database: unable to open database file\n",
                                        "2 database open error\n"}));

    writeFile(paths::kExtTree, "<r>");
    initXitemList();
    createExtConf(); // no compaction, no table touched
    EXPECT_EQ(logged(), std::vector<std::string>{"2 error: could not parse file "});
    EXPECT_EQ(CheckXitemListLength(), 0);
    delXitemList();
}

TEST_F(Store, NeutralTreeThatCannotBeParsedEndsTheProcess) {
    for (void (*build)() : {+[] { createDefaultConf(); }, +[] { createConf(); }}) {
        EXPECT_EXIT(
            {
                initXitemList();
                build();
                std::_Exit(1);
            },
            testing::ExitedWithCode(0), "");
        EXPECT_EQ(logged(), std::vector<std::string>{"2 error: could not parse file "});
    }
}

TEST_F(Store, TreeOverTheLimitIsReported) {
    sql(paths::kLiveDb, kLiveTable);
    writeFile(paths::kExtTree,
              "<r><t type='trunk'>\n<m type='multiple_instance' number='2147483647'>"
              "<x type='i'/></m></t></r>");
    initXitemList();
    createExtConf();
    EXPECT_EQ(logged().front(), "2 tree over the expansion limit: 1 elements left out or not "
                                "repeated, first t.m in line 2\n");
    EXPECT_EQ(sql(paths::kLiveDb, kAllLive), (SqlRows{{"t.m.number", "2147483647", ""}}));
    EXPECT_FALSE(storageFaultNoted());
}

TEST_F(Store, DumpShowsEveryField) {
    initXitemList();
    dumpXitemlist();
    EXPECT_TRUE(logged().empty());
    add("n", "v");
    dumpXitemlist();
    delXitemList();
    EXPECT_EQ(logged(),
              std::vector<std::string>{
                  "0 0 name:n value:v type:type' range:range\" step:step options:options; "
                  "mode:mode http_access:access \n"});
}

} // namespace
} // namespace kelconf::test
