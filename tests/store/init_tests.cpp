// kelconf-init as a whole, on the device's own paths.

#include "files/md5_sidecar.h"
#include "paths.h"
#include "support/files.h"
#include "support/records.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <functional>

namespace kelconf::test {
namespace {

namespace fs = std::filesystem;
using Records = std::vector<std::string>;

constexpr const char* kNeutral =
    "<r><ipcam type='trunk'><a type='int' range='0,9'>1</a>"
    "<s type='multiple_instance' number='2'><l type='string'>S%auto</l></s></ipcam>"
    "<private type='trunk'><p type='password'>it's</p></private></r>";
constexpr const char* kExt =
    "<r><ipcam type='trunk'><a type='int'>other</a></ipcam><own type='trunk'><x type='int'>5</x>"
    "</own></r>";

const SqlRows kNeutralRows = {{"ipcam.a", "1"},
                              {"ipcam.s.number", "2"},
                              {"ipcam.s.1.l", "S1"},
                              {"ipcam.s.2.l", "S2"},
                              {"private.p", "it's"}};

constexpr const char* kMissing = "0 default file missing\n";
constexpr const char* kCheck = "0 checking /mnt/nand/conf/default.db integrity\n";
constexpr const char* kMismatch = "2 default database MD5 checksum error\n";
constexpr const char* kJournal = "2 unfinished journal beside the default database\n";
constexpr const char* kNotParsed = "2 error: could not parse file ";

// The records of a whole build between others.
Records built(Records first, const Records& last = {}) {
    first.insert(first.end(), {"0 Creating default database\n", "0 Table created successfully\n",
                               "0 Done creating default DB\n"});
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
    Records run() {
        const ProgramResult result = runProgram("kelconf-init");
        EXPECT_EQ(result.status, 0);
        EXPECT_EQ(result.out, "");
        reports = result.err;
        return sameInBothSinks(log.take());
    }

    static void expectSealed(const SqlRows& rows) {
        EXPECT_TRUE(checkFileMD5(paths::kDefaultDb, paths::kDefaultDbMd5));
        EXPECT_EQ(sql(paths::kDefaultDb, "SELECT NAME,VALUE FROM CONFIGDEFAULT ORDER BY rowid"),
                  rows);
        EXPECT_EQ(sql(paths::kDefaultDb, "PRAGMA freelist_count"), (SqlRows{{"0"}}));
        EXPECT_EQ(std::distance(fs::directory_iterator("/mnt/nand/conf"), {}), 2);
    }

    DeviceLog log;
    std::string reports; // standard error of the last run
};

TEST_F(Init, BuildsThenFindsItSoundAndTouchesNothing) {
    for (const char* tree : {kNeutral, "<r/>"}) { // an empty table is sound too
        fs::remove(paths::kDefaultDb);
        writeFile(paths::kNeutralTree, tree);
        EXPECT_EQ(run(), built({kMissing}));
        EXPECT_EQ(reports, "");
        expectSealed(tree == kNeutral ? kNeutralRows : SqlRows{});
        const auto time = fs::last_write_time(paths::kDefaultDb);
        writeFile(paths::kNeutralTree, kExt); // a changed tree alone rebuilds nothing
        EXPECT_EQ(run(), Records{kCheck});
        EXPECT_EQ(fs::last_write_time(paths::kDefaultDb), time);
    }
}

// Whatever is wrong with it is no fault of the storage: the database is sealed, and the next start
// does not build it again.
TEST_F(Init, ExtensionTreeAddsAndCannotRedefineNorPreventTheSeal) {
    const auto file = [](const char* tree) { return [tree] { writeFile(paths::kExtTree, tree); }; };
    const auto make_socket = [] {
        sockaddr_un name{AF_UNIX, "/etc/ext_tree.xml"};
        const int end = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_EQ(bind(end, reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
        close(end);
    };
    const auto make_closed = [] {
        writeFile(paths::kExtTree, kExt);
        fs::permissions(paths::kExtTree, fs::perms::none);
    };
    const std::string unread = "2 /etc/ext_tree.xml cannot be read: ";
    const std::pair<std::function<void()>, Records> cases[] = {
        {file(kExt), {"2 SQL error: UNIQUE constraint failed: CONFIGDEFAULT.NAME\n"}},
        {file(""), {kNotParsed}},
        {file("<r><own type='trunk'><x type='int'>5</x></own>"), {kNotParsed}},
        {[] { fs::create_directory(paths::kExtTree); }, {kNotParsed}},
        {[] { mkfifo(paths::kExtTree, 0600); }, {kNotParsed}},
        {make_socket, {unread + "No such device or address\n", kNotParsed}},
        {make_closed, {unread + "Permission denied\n", kNotParsed}},
        {[] { fs::create_symlink(paths::kExtTree, paths::kExtTree); },
         {"2 /etc/ext_tree.xml cannot be looked for: Too many levels of symbolic links\n"}},
    };
    SqlRows rows = kNeutralRows;
    rows.push_back({"own.x", "5"});
    for (const auto& [make, records] : cases) {
        fs::remove(paths::kDefaultDb);
        fs::remove_all(paths::kExtTree);
        make();
        EXPECT_EQ(run(), built({kMissing}, records));
        EXPECT_EQ(reports.empty(), records.back() != kNotParsed) << "libxml2 says where";
        expectSealed(rows);
        rows = kNeutralRows; // but for the first
        EXPECT_EQ(run(), Records{kCheck});
    }
}

TEST_F(Init, NeutralTreeThatCannotBeParsedLeavesNoSeal) {
    fs::remove(paths::kNeutralTree);
    Records expected = built({kMissing});
    expected.back() = kNotParsed;
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_EQ(run(), expected);
        EXPECT_FALSE(exists(paths::kDefaultDbMd5));
        EXPECT_EQ(sql(paths::kDefaultDb, "SELECT * FROM CONFIGDEFAULT"), SqlRows{});
        if (attempt == 0) {
            expected.erase(expected.begin()); // the file is there now, without a seal
            fs::create_directory(paths::kNeutralTree);
        }
    }
    fs::remove(paths::kNeutralTree);
    writeFile(paths::kNeutralTree, kNeutral);
    run();
    expectSealed(kNeutralRows);
}

TEST_F(Init, DamageIsFoundAndRepaired) {
    run();
    const std::string sound = readFile(paths::kDefaultDb);
    const std::string seal = readFile(paths::kDefaultDbMd5);
    std::string flipped = sound;
    flipped[flipped.size() - 100] ^= 1;
    const std::string beside = paths::kDefaultDb;
    const struct {
        std::string path, content; // removed where the content is "-"
        Records records;
    } cases[] = {
        {paths::kDefaultDb, flipped, {kMismatch}},
        {paths::kDefaultDb, sound.substr(0, sound.size() / 2), {kMismatch}},
        {paths::kDefaultDb, "", {kMismatch}},
        {paths::kDefaultDbMd5, "", {kMismatch}},
        {paths::kDefaultDbMd5, seal.substr(0, 15), {kMismatch}},
        {paths::kDefaultDbMd5, std::string(16, 'x'), {kMismatch}},
        {paths::kDefaultDbMd5, "-", {}},
        {beside + "-journal", "j", {kJournal}},
        {beside + "-wal", "j", {kJournal}},
        {beside + "-shm", "j", {kJournal}},
    };
    for (const auto& [path, content, records] : cases) {
        SCOPED_TRACE(path + ": " + content.substr(0, 16));
        content == "-" ? static_cast<void>(fs::remove(path)) : writeFile(path, content);
        EXPECT_EQ(run(), built(records));
        expectSealed(kNeutralRows);
        EXPECT_EQ(run(), Records{kCheck});
    }
    // A sealed file that is no such database: only the scan can tell.
    fs::remove(paths::kDefaultDb);
    sql(paths::kDefaultDb, "CREATE TABLE OTHER(X)");
    createFileMD5(paths::kDefaultDb, paths::kDefaultDbMd5);
    EXPECT_EQ(run(), built({kCheck, "0 SQL error: no such table: CONFIGDEFAULT\n"}));
    expectSealed(kNeutralRows);
}

TEST_F(Init, WhereNoDatabaseCanBeMadeTheRecordsSayWhy) {
    const Records records{
        "0 Creating default database\n", "0 Can't open database: unable to open database file\n",
        "0 Done creating default DB\n",  "2 database open error\n",
        "2 create hash failed \n",       "2 default database incomplete, not sealed\n"};
    fs::create_directory(paths::kDefaultDb);
    EXPECT_EQ(run(), records);
    EXPECT_FALSE(exists(paths::kDefaultDbMd5));
    fs::remove_all("/mnt/nand/conf");
    Records missing = records;
    missing.insert(missing.begin(), kMissing);
    EXPECT_EQ(run(), missing);
}

} // namespace
} // namespace kelconf::test
