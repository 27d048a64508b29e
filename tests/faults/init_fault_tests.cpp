// kelconf-init while its storage fails under it, or while it is killed, at every distinct call.
//
// The promise: a sidecar that matches its database vouches for a right one, with every row,
// compacted; whatever else a bad day leaves behind is found out and repaired by the next run.
//
// For each state that the flash may be in at the start (kStarts), the storage calls of an
// undisturbed run are disturbed in turn, in each of the ways of kDisturbances. Calls of one kind
// for one file that follow the same opening of a file are repetitions: of those that change
// nothing, only the first is disturbed.
//
// What two undisturbed runs make of the same files is the same. So the repair is run once for
// each distinct state that a fault leaves.

#include "faults/init_runs.h"
#include "paths.h"
#include "support/device_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>
#include <tuple>

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
constexpr const char* kBallast = "/mnt/nand/ballast"; // what fills the flash up
constexpr const char* kStuckSidecar = "KELCONF_FAULT_STUCK=/mnt/nand/conf/default.db.md5";

#ifdef KELCONF_SANITIZED
constexpr std::size_t kStride = 5; // sanitized runs are slow: each 5th disturbance
#else
constexpr std::size_t kStride = 1;
#endif

// ---- What the flash holds before the run ----

enum class Disturb { kNothing, kWhatModifies, kEachCall };

struct Start {
    const char* name;
    Disturb disturbed;
    const char* neutral; // the trees of the sealed database; without the first there is none
    const char* ext;
    bool damaged;
    const char* journal = nullptr; // beside it, "-journal" or "-wal"
};

const Start kStarts[] = {
    {"Nothing", Disturb::kWhatModifies, nullptr, nullptr, false},
    {"Damage", Disturb::kEachCall, kNeutral, kExt, true},
    // Sealed is what an unfinished build could leave: its sidecar could come to match.
    {"NoExtension", Disturb::kWhatModifies, kNeutral, nullptr, true},
    {"EmptyTable", Disturb::kWhatModifies, "<r/>", nullptr, true},
    {"Journal", Disturb::kEachCall, kNeutral, kExt, false, "-journal"},
    {"JournalAlone", Disturb::kNothing, nullptr, nullptr, false, "-journal"},
    {"Log", Disturb::kNothing, kNeutral, kExt, false, "-wal"},
    {"LogAlone", Disturb::kNothing, nullptr, nullptr, false, "-wal"},
    {"LogAndDamage", Disturb::kNothing, kNeutral, kExt, true, "-wal"},
};

void writeTrees(const char* neutral, const char* ext) {
    writeFile(paths::kNeutralTree, neutral);
    std::filesystem::remove(paths::kExtTree);
    if (ext != nullptr) {
        writeFile(paths::kExtTree, ext);
    }
}

// The journal of a transaction on a database with other values: synced and not yet finished; for
// "-wal", finished and not yet checkpointed.
std::string foreignJournal(const Reference& right, const std::string& suffix) {
    const std::string path = "/tmp/foreign.db";
    writeFile(path, right.files().at("default.db"));
    std::string script = "UPDATE CONFIGDEFAULT SET VALUE='foreign';";
    script += suffix == "-wal" ? "PRAGMA journal_mode=WAL;" : "PRAGMA cache_size=1;BEGIN;";
    // The bulk pushes changed pages out of the cache, for which the journal is synced.
    script += "UPDATE CONFIGDEFAULT SET VALUE=VALUE||hex(zeroblob(5000))";
    sqlite3* handle = nullptr;
    sqlite3_open(path.c_str(), &handle);
    EXPECT_EQ(sqlite3_exec(handle, script.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
    std::string journal = readFile(path + suffix);
    sqlite3_close(handle);
    Flash beside = right.files();
    beside["default.db" + suffix] = journal;
    EXPECT_EQ(right.wrongWith(beside), "a journal rolls in");
    return journal;
}

Flash make(const Start& start, const Reference& right) {
    restoreFlash({});
    if (start.neutral != nullptr) {
        writeTrees(start.neutral, start.ext);
        runInit();
    }
    Flash files = readFlash();
    if (start.damaged) {
        files["default.db"][5000] ^= 1;
    }
    if (start.journal != nullptr) {
        files[std::string("default.db") + start.journal] = foreignJournal(right, start.journal);
    }
    return files;
}

void PrintTo(const Start& start, std::ostream* out) {
    *out << start.name;
}

// ---- What is disturbed, and how ----

constexpr const char* kAny = nullptr;
constexpr const char* kFirst = "";
constexpr const char* kModifying = " create write truncate remove sync ";
constexpr const char* kNeedsSpace = " create write truncate ";
constexpr const char* kOpensToWrite = " create openw ";

struct Disturbance {
    const char* action;
    int error;
    const char* call_class;
    const char* at; // the kinds of the calls that are disturbed
    const char* setting = "NONE=";
};

const Disturbance kDisturbances[] = {
    {"fail", EIO, "all", kAny},
    {"fail-on", EIO, "all", kAny},
    {"kill-after", 0, "all", kModifying},
    {"fail", ENOSPC, "all", kNeedsSpace},
    {"fail-on", ENOSPC, "space", kNeedsSpace},
    {"short-full", ENOSPC, "all", kNeedsSpace},
    {"short", 0, "all", " read write "},
    {"fail-on", EROFS, "modify", kFirst},
    // An old sidecar that can be neither removed nor changed must not come to match.
    {"fail", EIO, "all", kModifying, kStuckSidecar},
    {"fail-on", EIO, "remove", kFirst},
    {"fail-on", EIO, "modify", kOpensToWrite},
    {"fail-on", EIO, "stat", kOpensToWrite},
    {"fail-on", EIO, "read", kOpensToWrite},
    {"fail-on", EIO, "sync", kOpensToWrite},
    {"fail-on", EIO, "lock", kOpensToWrite},
};

bool isOf(const char* kinds, const StorageCall& call) {
    return kinds == kAny || (kinds == kFirst && call.number == 1) ||
           std::string(kinds).find(" " + call.kind + " ") != std::string::npos;
}

std::vector<StorageCall> distinctOf(const std::vector<StorageCall>& calls, Disturb wanted) {
    std::vector<StorageCall> distinct;
    std::set<std::tuple<int, std::string, std::string>> seen;
    int openings = 0;
    for (const StorageCall& call : calls) {
        const bool opens = isOf(" open create openw ", call);
        openings += opens ? 1 : 0;
        if (isModifying(call) || opens || call.number == 1 ||
            (wanted == Disturb::kEachCall && seen.emplace(openings, call.kind, call.path).second)) {
            distinct.push_back(call);
        }
    }
    return wanted == Disturb::kNothing ? std::vector<StorageCall>{} : distinct;
}

// ---- The runs ----

class FaultTest : public testing::Test {
  protected:
    static Reference build() {
        writeTrees(kNeutral, kExt);
        return {};
    }

    // The calls of an undisturbed run from there.
    std::vector<StorageCall> begin(const Flash& start) {
        start_ = start;
        writeTrees(kNeutral, kExt);
        restoreFlash(start_);
        auto calls = traceInit();
        EXPECT_GT(calls.size(), 50U);
        EXPECT_TRUE(sealed(readFlash()));
        EXPECT_EQ(right_.wrongWith(readFlash()), "") << "a run that nothing disturbs";
        log_.take();
        return calls;
    }

    void disturb(const Disturbance& how, const StorageCall& at) {
        const std::string plan = std::string(how.action) + " " + std::to_string(at.number) + " " +
                                 std::to_string(how.error) + " " + how.call_class;
        SCOPED_TRACE(plan + ": " + at.kind + " " + at.path + ", " + how.setting);
        restoreFlash(start_);
        auto environment = underFault(plan);
        environment.emplace_back(how.setting);
        const InitRun run = runInit(environment);
        EXPECT_EQ(run.killed, plan.starts_with("kill"));
        check(run);
    }

    // All that must hold after a disturbed run from the start.
    void check(const InitRun& run) {
        EXPECT_EQ(run.out, "");
        EXPECT_TRUE(run.err.empty() || run.err.find("/etc/") != std::string::npos)
            << "only libxml2 reports there: " << run.err;
        EXPECT_TRUE(run.killed || run.status == 0) << run.status;
        const Flash left = readFlash();
        if (sealMatches(left) && left != start_) {
            EXPECT_EQ(right_.wrongWith(left), "") << "sealed";
        }
        if (!run.killed) {
            checkRecords(left);
        }
        std::filesystem::remove(kBallast);
        if (repaired_.insert(left).second) {
            checkRepair();
        }
    }

    // A sidecar that cannot be written is missed without a word, a right database is not.
    void checkRecords(const Flash& left) {
        bool built = false;
        bool error = false; // besides those of a check, and of a build that nothing disturbs
        bool incomplete = false;
        for (const SyslogRecord& record : log_.take().syslog) {
            const auto says = [&](const char* text) {
                return record.text.find(text) != std::string::npos;
            };
            const bool fault = record.priority == LOG_ERR && !says("UNIQUE constraint") &&
                               !says("unfinished journal") && !says("MD5 checksum error");
            built |= says("Creating default database\n");
            error |= fault;
            incomplete |= fault && !says("create hash failed");
        }
        if (incomplete && start_.count("default.db.md5") == 0) { // an old one may match by chance
            EXPECT_FALSE(sealMatches(left)) << "sealed after an error";
        }
        EXPECT_TRUE(built || sealed(left)) << "judged sound";
        if (!sealMatches(left) && !error) {
            EXPECT_EQ(right_.wrongWith(left), "") << "nothing says why";
        }
    }

    // The next run makes it right, the one after finds it so and changes nothing.
    void checkRepair() {
        const InitRun run = runInit(underFault()); // no fault: only the wait for the disk is off
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.out + run.err, "");
        const Flash built = readFlash();
        EXPECT_TRUE(sealed(built));
        EXPECT_EQ(right_.wrongWith(built), "") << "the run after";
        const auto calls = traceInit();
        EXPECT_TRUE(std::none_of(calls.begin(), calls.end(), isModifying))
            << "the second run after";
        EXPECT_EQ(readFlash(), built);
        log_.take();
    }

    DeviceLog log_;
    const Reference right_ = build();
    Flash start_;
    std::set<Flash> repaired_;
};

class EachCall : public FaultTest, public testing::WithParamInterface<Start> {};

TEST_P(EachCall, Disturbed) {
    const auto calls = distinctOf(begin(make(GetParam(), right_)), GetParam().disturbed);
    std::size_t count = 0;
    for (const Disturbance& how : kDisturbances) {
        for (const StorageCall& call : calls) {
            if (isOf(how.at, call) && count++ % kStride == 0 && !HasFailure()) {
                disturb(how, call);
            }
        }
    }
    std::cout << "           " << calls.size() << " distinct calls, " << count << " disturbances, "
              << repaired_.size() << " distinct states repaired\n";
}

INSTANTIATE_TEST_SUITE_P(From, EachCall, testing::ValuesIn(kStarts),
                         [](const auto& instance) { return std::string(instance.param.name); });

// What a power failure after the run could take away is on the flash before it is vouched for.
TEST_F(FaultTest, TheDatabaseIsFlushedBeforeItsSidecarIsWritten) {
    std::string order;
    for (const StorageCall& call : begin({})) {
        if (call.kind == "write" || call.kind == "sync") {
            order += call.kind + (call.path == paths::kDefaultDbMd5 ? " sidecar," : ",");
        }
    }
    EXPECT_TRUE(order.ends_with(",write,sync,write sidecar,sync sidecar,")) << order;
}

// The flash is in memory, and a ballast file leaves so many pages of it free.
TEST_F(FaultTest, AFullFlashSealsNothingIncomplete) {
    std::set<bool> sealed_with;
    for (const Flash& start : {Flash{}, make(kStarts[2], right_)}) {
        begin(start);
        for (std::uintmax_t pages = 0; pages < 14 && !HasFailure(); ++pages) {
            SCOPED_TRACE(pages);
            restoreFlash(start);
            writeFile(kBallast, "");
            const std::uintmax_t free = std::filesystem::space("/mnt/nand").free;
            const int fd = open(kBallast, O_WRONLY | O_CLOEXEC);
            ASSERT_EQ(posix_fallocate(fd, 0, static_cast<off_t>(free - pages * 4096)), 0);
            close(fd);
            const InitRun run = runInit();
            sealed_with.insert(sealMatches(readFlash()));
            check(run);
        }
    }
    EXPECT_EQ(sealed_with.size(), 2U) << "the flash was never full, or always";
}

// What the kernel was asked against what the shim has counted.
TEST_F(FaultTest, EveryCallThatTheKernelSeesIsCounted) {
    const auto calls = begin({});
    restoreFlash({});
    // The search for leaks needs the tracing for itself. What follows the first path is data.
    ASSERT_EQ(std::system("ASAN_OPTIONS=detect_leaks=0 strace -f -y -e trace=%file,%desc "
                          "-o /tmp/strace.out kelconf-init && grep -cE '^[0-9]+ +[a-z0-9_]+\\("
                          "(AT_FDCWD<[^>]*>, )?(\"|[0-9]+<)(/mnt[/\">]|/etc/[^/\">]*\\.xml|"
                          "[^\">]*/etilqs_)' /tmp/strace.out > /tmp/strace.count"),
              0)
        << "strace must be installed and allowed to trace";
    EXPECT_EQ(std::stol(readFile("/tmp/strace.count")), calls.back().number);
}

} // namespace
} // namespace kelconf::test
