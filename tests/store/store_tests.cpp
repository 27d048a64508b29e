// Default table, sidecars and builders on the device's own paths: files, rows and log records.

#include "builders/conf_builders.h"
#include "db/default_db.h"
#include "files/md5_sidecar.h"
#include "files/storage_fault.h"
#include "paths.h"
#include "support/files.h"
#include "support/records.h"
#include "text/text.h"
#include "tree/tree_file.h"
#include "tree/xitem.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <md5.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <vector>

namespace kelconf::test {
namespace {

namespace fs = std::filesystem;
using Records = std::vector<std::string>;
using Connection = std::unique_ptr<sqlite3, decltype(&sqlite3_close)>;
constexpr const char* kChecking = "0 checking /mnt/nand/conf/default.db integrity\n";
constexpr const char* kLiveTable = "CREATE TABLE CONFIG( NAME  TEXT  PRIMARY KEY  ,VALUE TEXT      "
                                   "         ,TYPE  TEXT           )";

std::string md5Of(const std::string& bytes) {
    MD5_CTX context;
    MD5Init(&context);
    MD5Update(&context, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    std::string digest(16, '\0');
    MD5Final(reinterpret_cast<unsigned char*>(digest.data()), &context);
    return digest;
}

// A transaction of somebody else.
Connection held(const char* path, const char* script) {
    sqlite3* other = nullptr;
    sqlite3_open(path, &other);
    EXPECT_EQ(sqlite3_exec(other, script, nullptr, nullptr, nullptr), SQLITE_OK);
    return {other, sqlite3_close};
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

    static void add(const char* name, const char* value = "v") {
        const xitem item{newText(name),      newText(value),    newText("type'"),
                         newText("range\""), newText("step"),   newText("options;"),
                         newText("mode"),    newText("access"), 0};
        ASSERT_EQ(addXitemElement(&item), 1);
    }

    DeviceLog log;
};

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
    createDefaultSQLTable();
    initXitemList();
    SqlRows expected;
    for (const std::string& text :
         {std::string{}, std::string{"it''s \" %s%n?1:a@b$c"}, std::string(1 << 20, 'y') + "'",
          std::string{"'); DROP TABLE CONFIGDEFAULT; --\xc3\xbc\n\t "}}) {
        const std::string name = "n'" + std::to_string(expected.size());
        add(name.c_str(), text.c_str());
        expected.push_back({name, text, "type'", "range\"", "step", "access", "options;"});
    }
    add("n'0", "second");
    logged();
    EXPECT_EQ(insertDefaultSQLEntry(), 1);
    delXitemList();
    EXPECT_EQ(logged(), Records{"2 SQL error: UNIQUE constraint failed: CONFIGDEFAULT.NAME\n"});
    EXPECT_EQ(sql(paths::kDefaultDb, "SELECT NAME,VALUE,TYPE,RANGE,STEP,HTTP_ACCESS,OPTIONS FROM "
                                     "CONFIGDEFAULT ORDER BY rowid"),
              expected);
    EXPECT_FALSE(storageFaultNoted()) << "a refused duplicate is ordinary";
}

// Fills, scans and compacts the default database, then fills and compacts the live one.
TEST_F(Store, WhatStandsInTheWayIsLoggedAndNoted) {
    std::vector<Connection> locks;
    const auto lock = [&](const char* script) {
        return [&locks, script](const char* path) { locks.push_back(held(path, script)); };
    };
    const std::string no_table = "SQL error: no such table: CONFIGDEFAULT\n";
    const std::string locked = "SQL error: database is locked\n";
    const std::string cannot = "0 Can't open database: unable to open database file\n";
    const std::string no_vacuum = "2 execute vacuum error\n";
    const std::string done = "0 insert finishes\n";
    const struct {
        std::function<void(const char* path)> make;
        bool filled, sound;
        Records records;
    } cases[] = {
        {[](auto) {},
         true,
         false,
         {"2 " + no_table, "2 " + no_table, kChecking, "0 " + no_table, done}},
        {lock("CREATE TABLE CONFIGDEFAULT(NAME,VALUE,TYPE,RANGE,STEP,HTTP_ACCESS,OPTIONS);"
              "CREATE TABLE CONFIG(NAME,VALUE,TYPE);BEGIN;SELECT * FROM CONFIG"),
         true,
         true,
         {"2 end trans error\n", kChecking, no_vacuum, "0 end trans error\n", done, no_vacuum}},
        {lock("BEGIN EXCLUSIVE"),
         true,
         false,
         {"2 PRAGMA NORMAL error:database is locked\n", "2 " + locked, "2 " + locked, kChecking,
          "0 " + locked, no_vacuum, "0 PRAGMA OFF error\n", done, no_vacuum}},
        {[](auto path) { fs::remove(path), fs::create_directory(path); },
         false,
         false,
         {cannot, kChecking, cannot, "2 database open error\n", cannot, "2 database open error\n"}},
    };
    initXitemList();
    add("a");
    add("b");
    for (const auto& c : cases) {
        c.make(paths::kDefaultDb);
        c.make(paths::kLiveDb);
        clearStorageFault();
        EXPECT_EQ(insertDefaultSQLEntry(), c.filled ? 1 : 0);
        EXPECT_TRUE(storageFaultNoted());
        EXPECT_EQ(checkDefaultDataBaseIntegrity(paths::kDefaultDb), c.sound ? 1 : 0);
        shrinkDB(paths::kDefaultDb);
        clearStorageFault();
        addXItemInDatabase();
        EXPECT_TRUE(storageFaultNoted());
        shrinkDB(paths::kLiveDb);
        EXPECT_EQ(logged(), c.records);
        locks.clear();
    }
    delXitemList();
}

TEST_F(Store, IntegrityIsAFullScan) {
    const std::string path = paths::kDefaultDb;
    writeFile(path, "no database at all, but long enough to be read as the head of one.......");
    EXPECT_EQ(checkDefaultDataBaseIntegrity(path.c_str()), 0);
    EXPECT_EQ(logged(), (Records{kChecking, "0 SQL error: file is not a database\n"}));
    fs::remove(path);
    createDefaultSQLTable();
    sql(path, "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n LIMIT 2000)"
              " INSERT INTO CONFIGDEFAULT SELECT i,i,i,i,i,i,i FROM n");
    EXPECT_EQ(checkDefaultDataBaseIntegrity(path.c_str()), 1);
    fs::resize_file(path, fs::file_size(path) / 2);
    EXPECT_EQ(checkDefaultDataBaseIntegrity(path.c_str()), 0) << "cut in the middle";
}

// ---- Sidecars ----

TEST_F(Store, SidecarIsTheRawDigestAndWhatFollowsItStays) {
    const char* file = "/mnt/nand/conf/guarded";
    const char* seal = "/mnt/nand/conf/guarded.md5";
    for (const std::size_t size : {0U, 1000003U}) {
        writeFile(file, std::string(size, 'k'));
        EXPECT_TRUE(createFileMD5(file, seal));
        EXPECT_EQ(readFile(seal), md5Of(std::string(size, 'k'))) << size;
    }
    EXPECT_EQ(fs::status(seal).permissions(), fs::perms(0644));
    writeFile(file, "content");
    const std::string digest = md5Of("content");
    const std::pair<std::string, bool> cases[] = {
        {digest, true},
        {digest + "more", true},
        {"", false},
        {digest.substr(0, 15), false},
        {digest.substr(0, 15) + static_cast<char>(digest[15] ^ 1), false},
    };
    for (const auto& [content, matches] : cases) {
        writeFile(seal, content);
        EXPECT_EQ(checkFileMD5(file, seal), matches) << content;
    }
    writeFile(seal, std::string(16, 'o') + "tail");
    EXPECT_TRUE(createFileMD5(file, seal));
    EXPECT_TRUE(logged().empty());
    fs::remove(file);
    EXPECT_FALSE(createFileMD5(file, seal));
    EXPECT_EQ(logged(), Records{"2 create hash failed \n"});
    EXPECT_EQ(readFile(seal), digest + "tail");
    writeFile(file, "content");
    fs::remove(seal);
    fs::create_directory(seal);
    EXPECT_FALSE(checkFileMD5(file, seal));
    EXPECT_FALSE(createFileMD5(file, seal));
    EXPECT_TRUE(logged().empty()) << "a sidecar that cannot be opened is silent";
}

TEST_F(Store, GuardedPairsAndPresence) {
    const struct {
        bool (*check)();
        const char *file, *seal, *without_seal, *mismatch; // records, the latter without file too
        bool (*present)();
        const char* absent;
    } pairs[] = {
        {checkDefaultConfigDBMD5, paths::kDefaultDb, paths::kDefaultDbMd5, nullptr,
         "2 default database MD5 checksum error\n", checkDefaultFile, "0 default file missing\n"},
        {checkConfigDBMD5, paths::kLiveDb, paths::kLiveDbMd5, nullptr,
         "2 Config database MD5 checksum error\n", checkConfFile, "0 conf file missing\n"},
        {checkConfigBackupDBMD5, paths::kBackupDb, paths::kBackupDbMd5, nullptr,
         "2 backup database MD5 checksum error\n", checkConfBackupFile,
         "0 conf backup file missing\n"},
        {checkXMLFileStatus, paths::kNeutralTree, paths::kNeutralTreeMd5, "0 XMl has new update\n",
         "0 XMl has new update\n", nullptr, nullptr},
        {checkExtXMLFileStatus, paths::kExtTree, paths::kExtTreeMd5, "0 Ext XMl has new update\n",
         "0 Ext XMl has new update\n", extTreeFileExist, nullptr},
    };
    for (const auto& pair : pairs) {
        SCOPED_TRACE(pair.file);
        const auto expect = [&](bool (*check)(), bool result, const char* text) {
            EXPECT_EQ(check(), result);
            EXPECT_EQ(logged(), text == nullptr ? Records{} : Records{text});
        };
        writeFile(pair.file, "content");
        expect(pair.check, false, pair.without_seal);
        createFileMD5(pair.file, pair.seal);
        expect(pair.check, true, nullptr);
        writeFile(pair.file, "Content");
        expect(pair.check, false, pair.mismatch);
        fs::remove(pair.file);
        expect(pair.check, false, pair.mismatch);
        if (pair.present != nullptr) {
            expect(pair.present, false, pair.absent);
            fs::create_directory(pair.file); // whatever kind of file it is
            expect(pair.present, true, nullptr);
        }
    }
    EXPECT_FALSE(storageFaultNoted());
}

// ---- Builders ----

TEST_F(Store, LiveBuilderAddsWhatIsMissing) {
    sql(paths::kLiveDb, kLiveTable);
    sql(paths::kLiveDb, "INSERT INTO CONFIG VALUES('private.kept','mine','string'),"
                        "('x',zeroblob(100000),'');DELETE FROM CONFIG WHERE NAME='x'");
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
        EXPECT_EQ(sql(paths::kLiveDb, "SELECT NAME,VALUE,TYPE FROM CONFIG ORDER BY NAME"),
                  (SqlRows{{"ipcamera.x", "2", "int"},
                           {"private.kept", "mine", "string"},
                           {"private.q", "it's", "s"}}));
        EXPECT_EQ(sql(paths::kLiveDb, "PRAGMA freelist_count"), (SqlRows{{"0"}})) << "compacted";
    }
    EXPECT_FALSE(storageFaultNoted());
}

TEST_F(Store, ATreeThatCannotBeUsedIsReported) {
    sql(paths::kLiveDb, kLiveTable);
    sql(paths::kLiveDb, "INSERT INTO CONFIG VALUES('x',zeroblob(100000),'');DELETE FROM CONFIG");
    const std::string unused = sql(paths::kLiveDb, "PRAGMA freelist_count")[0][0];
    for (const char* tree : {"<r>", "<r><t type='trunk'>\n<m type='multiple_instance' "
                                    "number='2147483647'><x type='i'/></m></t></r>"}) {
        writeFile(paths::kExtTree, tree);
        const bool sound = tree[3] != '\0';
        initXitemList();
        createExtConf();
        EXPECT_EQ(logged(), sound ? (Records{"2 tree over the expansion limit: 1 elements left out "
                                             "or not repeated, first t.m in line 2\n",
                                             "0 insert finishes\n"})
                                  : Records{"2 error: could not parse file "});
        EXPECT_EQ(sql(paths::kLiveDb, "PRAGMA freelist_count")[0][0], sound ? "0" : unused);
        if (!sound) {
            delXitemList(); // left to the caller
        }
    }
    EXPECT_FALSE(storageFaultNoted());
    writeFile(paths::kNeutralTree, "<r>");
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

// While it reads a tree, libxml2 may ask for other files: here it does.
xmlExternalEntityLoader load_entity = nullptr;
int read_of_other = 0;
xmlParserInput* loadTwo(const char* url, const char* id, xmlParserCtxt* context) {
    xmlParserInput* tree = load_entity(url, id, context);
    xmlParserInputBuffer* other =
        xmlParserInputBufferCreateFilename("/mnt/nand/conf/other.xml", XML_CHAR_ENCODING_NONE);
    read_of_other = other == nullptr ? 0 : xmlParserInputBufferRead(other, 4);
    xmlFreeParserInputBuffer(other);
    return tree;
}

TEST_F(Store, NoFileButTheTreeIsOpened) {
    writeFile(paths::kExtTree, "<ext/>");
    writeFile("/mnt/nand/conf/other.xml", "<other/>");
    load_entity = xmlGetExternalEntityLoader();
    xmlSetExternalEntityLoader(loadTwo);
    EXPECT_NE(readTreeFile(paths::kExtTree), nullptr);
    EXPECT_LE(read_of_other, 0);
    xmlSetExternalEntityLoader(load_entity);
}

TEST_F(Store, DumpShowsEveryField) {
    initXitemList();
    add("n");
    add("m");
    dumpXitemlist();
    delXitemList();
    const std::string fields = " value:v type:type' range:range\" step:step options:options; "
                               "mode:mode http_access:access \n";
    EXPECT_EQ(logged(), (Records{"0 0 name:n" + fields, "0 1 name:m" + fields}));
}

} // namespace
} // namespace kelconf::test
