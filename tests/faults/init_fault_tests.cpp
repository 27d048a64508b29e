// kelconf-init while its storage fails under it, or while it is killed, at every single call.
//
// The promise: a sidecar that matches its database vouches for a right one, with every row,
// compacted; whatever else a bad day leaves behind is found out and repaired by the next run.
//
// For each state that the flash may be in at the start (kStarts), every storage call of an
// undisturbed run is disturbed in turn. Not sampled: each call fails once, fails with all after
// it, and is replaced by the end of the process; each call that needs space finds none (once,
// and from there on); each read and write is cut short. The end right after a call is tried
// for the calls that change something: after any other, the flash is as it was before it.
// Sampled: one kind of call failing from each 20th call on, and the large tree.
//
// What two undisturbed runs make of the same files is the same. So the repair is run once for
// each distinct state that a fault leaves.

#include "faults/init_runs.h"
#include "paths.h"
#include "support/device_log.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <sstream>

namespace kelconf::test {
namespace {

constexpr const char* kNeutral =
    "<r><ipcam type='trunk'><a type='int' range='0,9' http_access='rw'>1</a>"
    "<s type='multiple_instance' number='25'><l type='string' options='x|y'>S%auto of the "
    "streams, with a text that fills some pages of the file</l></s></ipcam>"
    "<private type='trunk'><p type='password'>it's</p></private></r>";
constexpr const char* kExt =
    "<r><ipcam type='trunk'><a type='int'>other</a></ipcam>"
    "<own type='trunk'><x type='int'>5</x><y type='multiple_instance' number='9'>"
    "<z type='string'>%auto</z></y></own></r>";

constexpr const char* kSidecar = "/mnt/nand/conf/default.db.md5";
#ifdef KELCONF_SANITIZED
constexpr std::size_t kStride = 5; // sanitized runs are slow: each 5th call instead of each
#else
constexpr std::size_t kStride = 1;
#endif

void writeTrees(const std::string& neutral) {
    writeFile(paths::kNeutralTree, neutral);
    writeFile(paths::kExtTree, kExt);
}

Flash sealedWithoutExtension(const char* neutral) {
    writeFile(paths::kNeutralTree, neutral);
    std::filesystem::remove(paths::kExtTree);
    restoreFlash({});
    runInit();
    return readFlash();
}

Flash damaged(Flash files) {
    std::string& database = files["default.db"];
    database[database.size() / 2] = static_cast<char>(database[database.size() / 2] ^ 1);
    return files;
}

// The journal that a transaction on another database of the same tables has beside it, synced
// and not yet finished; for "-wal", finished and not yet checkpointed.
std::string foreignJournal(const std::string& suffix) {
    const std::string path = "/tmp/foreign.db";
    for (const char* one : {"", "-journal", "-wal", "-shm"}) {
        std::filesystem::remove(path + one);
    }
    sqlite3* handle = nullptr;
    sqlite3_open(path.c_str(), &handle);
    std::string script = "CREATE TABLE CONFIGDEFAULT(NAME TEXT PRIMARY KEY, VALUE TEXT, TYPE TEXT,"
                         "RANGE TEXT, STEP TEXT, HTTP_ACCESS TEXT, OPTIONS TEXT);"
                         "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n LIMIT 99)"
                         "INSERT INTO CONFIGDEFAULT(NAME,VALUE) SELECT 'foreign'||i,"
                         "printf('%200d',i) FROM n;";
    script += suffix == "-wal" ? "PRAGMA journal_mode=WAL;" : "PRAGMA cache_size=1;BEGIN;";
    // Changes every page, the first included, so that rolling it in gives a whole database; the
    // bulk pushes the changed pages out of the cache, for which the journal is finished.
    script += "CREATE TABLE OTHER(X);UPDATE CONFIGDEFAULT SET NAME='changed'||NAME,VALUE=VALUE||1;"
              "INSERT INTO OTHER SELECT A.VALUE FROM CONFIGDEFAULT A, CONFIGDEFAULT B;";
    const int status = sqlite3_exec(handle, script.c_str(), nullptr, nullptr, nullptr);
    std::string journal = readFile(path + suffix);
    sqlite3_close(handle);
    if (status != SQLITE_OK || journal.empty()) {
        throw std::runtime_error("no foreign journal");
    }
    return journal;
}

// ---- What the flash holds before the run ----

struct Start {
    const char* name;
    std::function<Flash(const Reference&)> make;
};

const std::vector<Start> kStarts = {
    {"Nothing", [](const Reference&) { return Flash{}; }},
    {"DamagedSame", [](const Reference& right) { return damaged(right.files()); }},
    {"DamagedWithoutExtension",
     [](const Reference&) { return damaged(sealedWithoutExtension(kNeutral)); }},
    {"DamagedEmptyTable", [](const Reference&) { return damaged(sealedWithoutExtension("<r/>")); }},
    {"ForeignJournal", [](const Reference& right) {
         Flash files = right.files();
         files["default.db-journal"] = foreignJournal("-journal");
         return files;
     }}};

std::ostream& operator<<(std::ostream& out, const Start& start) {
    return out << start.name;
}

std::string summary(const Flash& files) {
    std::ostringstream out;
    for (const auto& [name, content] : files) {
        out << name << " (" << content.size() << " bytes) ";
    }
    return out.str();
}

// What kelconf-init says of its run.
struct Story {
    bool built = false;
    bool error = false; // besides those of a build and of a check that nothing disturbs
};

class FaultTest : public testing::Test {
  protected:
    explicit FaultTest(std::string neutral = kNeutral) : neutral_(std::move(neutral)) {}

    void SetUp() override {
        resetDevice();
        writeTrees(neutral_);
        right_.emplace();
    }

    void begin(const Flash& start) {
        start_ = start;
        writeTrees(neutral_);
        restoreFlash(start_);
        calls_ = traceInit();
        ASSERT_GT(calls_.size(), 50U);
        ASSERT_EQ(right().wrongWith(readFlash()), "") << "a run that nothing disturbs";
        log_.take();
    }

    const Reference& right() { return *right_; }

    // One disturbed run from the start, and all that must hold after it.
    void disturb(const std::string& plan, const StorageCall& at,
                 const std::string& more_environment = {}) {
        std::ostringstream what;
        what << plan << ": call " << at.number << " " << at.name << " " << at.path;
        const testing::ScopedTrace trace(__FILE__, __LINE__, what.str());
        restoreFlash(start_);
        auto environment = underFault(plan);
        environment.push_back(more_environment.empty() ? "NOTHING=" : more_environment);
        const InitRun run = runInit(environment);
        ++disturbed_;
        EXPECT_FALSE(run.timed_out);
        EXPECT_EQ(run.out, "");
        EXPECT_TRUE(run.err.empty() || run.err.find("/etc/") != std::string::npos)
            << "only libxml2 reports there: " << run.err;
        const bool to_be_killed = plan.starts_with("kill");
        EXPECT_EQ(run.killed, to_be_killed);
        if (!run.killed) {
            EXPECT_EQ(run.status, 0);
        }
        check(readFlash(), run);
    }

    void check(const Flash& left, const InitRun& run) {
        if (sealMatches(left) && left != start_) {
            EXPECT_EQ(right().wrongWith(left), "") << "sealed: " << summary(left);
        }
        if (!run.killed) {
            checkStory(readStory(), left);
        }
        if (repaired_.insert(left).second) {
            checkRepair();
            log_.take();
        }
    }

    // A sidecar that cannot be written is missed without a word, a right database is not.
    void checkStory(const Story& story, const Flash& left) {
        if (!story.built) {
            EXPECT_TRUE(sealed(left)) << "judged sound: " << summary(left);
        }
        if (!sealMatches(left) && !story.error) {
            EXPECT_EQ(right().wrongWith(left), "") << "nothing says why";
        }
    }

    // The next run makes it right, the one after finds it so and changes nothing.
    void checkRepair() {
        const InitRun run = runInit(underFault("")); // no fault: only the wait for the disk is off
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.out + run.err, "");
        const Flash built = readFlash();
        EXPECT_TRUE(sealed(built)) << summary(built);
        EXPECT_EQ(right().wrongWith(built), "") << "the run after";
        const auto calls = traceInit();
        EXPECT_TRUE(std::none_of(calls.begin(), calls.end(), isModifying))
            << "the second run after";
        EXPECT_EQ(readFlash(), built);
    }

    Story readStory() {
        Story story;
        for (const SyslogRecord& record : log_.take().syslog) {
            story.built |= record.text.find("Creating default database\n") != std::string::npos;
            story.error |= record.priority == LOG_ERR &&
                           record.text.find("UNIQUE constraint") == std::string::npos &&
                           record.text.find("MD5 checksum error") == std::string::npos;
        }
        return story;
    }

    template <typename Wanted>
    void disturbEach(const std::string& action, int error, const std::string& call_class,
                     Wanted wanted) {
        for (std::size_t i = 0; i < calls_.size() && !HasFailure(); i += kStride) {
            if (wanted(calls_[i])) {
                disturb(planAt(action, calls_[i].number, error, call_class), calls_[i]);
            }
        }
    }

    static std::string planAt(const std::string& action, long number, int error,
                              const std::string& call_class) {
        return action + " " + std::to_string(number) + " " + std::to_string(error) + " " +
               call_class;
    }

    void TearDown() override {
        RecordProperty("disturbed_runs", disturbed_);
        std::cout << "           " << calls_.size() << " storage calls, " << disturbed_
                  << " disturbed runs, " << repaired_.size() << " distinct states repaired\n";
    }

    DeviceLog log_;
    std::string neutral_;
    std::optional<Reference> right_;
    Flash start_;
    std::vector<StorageCall> calls_;
    std::set<Flash> repaired_;
    int disturbed_ = 0;
};

bool any(const StorageCall& /*call*/) {
    return true;
}

bool needsSpace(const StorageCall& call) {
    return call.kind == "create" || call.kind == "write" || call.kind == "truncate";
}

bool transfers(const StorageCall& call) {
    return call.kind == "read" || call.kind == "write";
}

class EachCall : public FaultTest, public testing::WithParamInterface<Start> {
  protected:
    void SetUp() override {
        FaultTest::SetUp();
        begin(GetParam().make(right()));
    }
};

TEST_P(EachCall, FailsOnce) {
    disturbEach("fail", EIO, "all", any);
}

TEST_P(EachCall, FailsFromThereOn) {
    disturbEach("fail-on", EIO, "all", any);
}

TEST_P(EachCall, IsTheEnd) {
    disturbEach("kill-before", 0, "all", any);
    disturbEach("kill-after", 0, "all", isModifying);
}

TEST_P(EachCall, FindsNoSpace) {
    disturbEach("fail", ENOSPC, "all", needsSpace);
    disturbEach("fail-on", ENOSPC, "space", needsSpace);
    disturbEach("short-full", ENOSPC, "space", needsSpace);
}

TEST_P(EachCall, IsCutShort) {
    disturbEach("short", 0, "all", transfers);
}

// An old sidecar that can be neither removed nor changed must not come to match.
TEST_P(EachCall, FailsOnceUnderASidecarThatStays) {
    for (std::size_t i = 0; i < calls_.size() && !HasFailure(); i += kStride) {
        disturb(planAt("fail", calls_[i].number, EIO, "all"), calls_[i],
                std::string("KELCONF_FAULT_STUCK=") + kSidecar);
    }
}

TEST_P(EachCall, OneKindFailsFromThereOn) {
    for (const char* kind : {"stat", "open", "openw", "create", "read", "write", "truncate",
                             "remove", "sync", "lock", "close", "owner", "modify"}) {
        for (std::size_t i = 0; i < calls_.size() && !HasFailure(); i += 20 * kStride) {
            disturb(planAt("fail-on", calls_[i].number, EIO, kind), calls_[i]);
        }
    }
}

TEST_P(EachCall, NothingMayBeWritten) {
    disturb(planAt("fail-on", 1, EROFS, "modify"), calls_.front());
    disturb(planAt("fail-on", 1, EACCES, "modify"), calls_.front());
}

TEST_P(EachCall, RoomForSoManyBytes) {
    for (long room = 0; room < 120000 && !HasFailure(); room += 2000) {
        disturb(planAt("room", room, ENOSPC, "all"), calls_.front());
    }
}

INSTANTIATE_TEST_SUITE_P(From, EachCall, testing::ValuesIn(kStarts),
                         [](const auto& instance) { return std::string(instance.param.name); });

// ---- Journals of other databases ----

class StaleJournal : public FaultTest, public testing::WithParamInterface<const char*> {};

TEST_P(StaleJournal, IsNeverRolledIn) {
    const std::string suffix = GetParam();
    const std::string journal = foreignJournal(suffix);
    Flash beside = right().files();
    beside["default.db" + suffix] = journal;
    ASSERT_EQ(right().wrongWith(beside), "a journal rolls in");

    Flash alone;
    alone["default.db" + suffix] = journal;
    Flash without_database = beside;
    without_database.erase("default.db");
    Flash beside_damaged = damaged(right().files());
    beside_damaged["default.db" + suffix] = journal;
    for (const Flash& start : {beside, alone, without_database, beside_damaged}) {
        SCOPED_TRACE(summary(start));
        begin(start);
        restoreFlash(start);
        checkRepair();
    }
}

INSTANTIATE_TEST_SUITE_P(Of, StaleJournal, testing::Values("-journal", "-wal"),
                         [](const auto& instance) { return std::string(instance.param + 1); });

// ---- No directory ----

class NoDirectory : public FaultTest {};

TEST_F(NoDirectory, IsLoggedAndHealsWithIt) {
    std::filesystem::remove_all("/mnt/nand/conf");
    log_.take();
    const InitRun run = runInit();
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.out + run.err, "");
    EXPECT_TRUE(readStory().error);
    EXPECT_FALSE(exists("/mnt/nand/conf"));
    restoreFlash({});
    checkRepair();
}

// ---- A build that is too large for SQLite's caches ----

std::string largeTree() {
    return "<r><t type='trunk'><s type='multiple_instance' number='7000'><l type='string'>" +
           std::string(300, 'v') + "%auto</l></s></t></r>";
}

class LargeTree : public FaultTest {
  protected:
    LargeTree() : FaultTest(largeTree()) {}
};

// Sampled: 8 of some thousand calls, evenly, and the last 6.
TEST_F(LargeTree, SurvivesTheSame) {
    begin({});
    ASSERT_TRUE(std::any_of(calls_.begin(), calls_.end(), [](const StorageCall& call) {
        return call.path.find("etilqs_") != std::string::npos;
    })) << "it was to need a temporary file";
    const std::size_t count = calls_.size();
    for (std::size_t i = 0; i < 14 && !HasFailure(); ++i) {
        const StorageCall at = calls_[i < 8 ? i * count / 8 : count - 1 - (i - 8)];
        disturb(planAt("fail", at.number, EIO, "all"), at);
        disturb(planAt("fail-on", at.number, EIO, "all"), at);
        disturb(planAt("fail-on", at.number, ENOSPC, "space"), at);
        disturb(planAt("kill-before", at.number, 0, "all"), at);
    }
}

// ---- The shim itself ----

struct SeenCall {
    std::string name, path;
    bool operator==(const SeenCall&) const = default;
};

void PrintTo(const SeenCall& call, std::ostream* out) {
    *out << call.name << " " << call.path;
}

// Random names of temporary files are cut to what they have in common.
std::string comparable(const std::string& path) {
    return path.find("/etilqs_") != std::string::npos ? "/etilqs_" : path;
}

bool watched(const std::string& path) {
    return path == "/mnt" || path.starts_with("/mnt/") || comparable(path) == "/etilqs_" ||
           (path.starts_with("/etc/") && path.ends_with(".xml"));
}

// The watched path in the arguments of a call, be it a text or the file of a descriptor
// (strace -y); empty when there is none. What follows the first text is data.
std::string watchedIn(const std::string& arguments) {
    for (std::size_t at = arguments.find_first_of("\"<"); at != std::string::npos;
         at = arguments.find_first_of("\"<", at)) {
        const bool is_text = arguments[at] == '"';
        const std::size_t end = arguments.find(is_text ? '"' : '>', at + 1);
        const std::string path = arguments.substr(at + 1, end - at - 1);
        if (watched(path) || is_text || end == std::string::npos) {
            return watched(path) ? path : "";
        }
        at = end;
    }
    return {};
}

// The calls of an strace record, "PID NAME(ARGUMENTS) = RESULT" each, that name a watched path.
std::vector<SeenCall> seenByStrace(const std::string& record) {
    std::vector<SeenCall> calls;
    std::istringstream lines(record);
    std::string name;
    std::string arguments;
    for (long pid = 0; lines >> pid && std::getline(lines >> std::ws, name);) {
        const std::size_t bracket = name.find('(');
        arguments = bracket == std::string::npos ? "" : name.substr(bracket);
        if (const std::string path = watchedIn(arguments); !path.empty()) {
            calls.push_back({name.substr(0, bracket), comparable(path)});
        }
    }
    return calls;
}

// What the kernel was asked, in order, against what the shim has counted.
TEST_F(LargeTree, EveryCallThatTheKernelSeesIsCounted) {
    restoreFlash({});
    std::vector<SeenCall> counted;
    for (const StorageCall& call : traceInit()) {
        counted.push_back({call.name, comparable(call.path)});
    }
    restoreFlash({});
    ASSERT_EQ(std::system("ASAN_OPTIONS=detect_leaks=0 strace -f -y -e trace=%file,%desc "
                          "-o /tmp/strace.out kelconf-init"),
              0) // the search for leaks needs the tracing for itself

        << "strace must be installed and allowed to trace";
    const auto seen = seenByStrace(readFile("/tmp/strace.out"));
    ASSERT_GT(counted.size(), 1000U);
    for (std::size_t i = 0; i < std::min(seen.size(), counted.size()); ++i) {
        ASSERT_EQ(seen[i], counted[i]) << "call " << i + 1;
    }
    EXPECT_EQ(seen.size(), counted.size());
}

} // namespace
} // namespace kelconf::test
