// Every storage call of a start of kelconfd that changes something, killed and failed one by one.
#include "daemon/bus_client.h"
#include "daemon/daemon_process.h"
#include "paths.h"
#include "support/device_log.h"
#include "support/files.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace kelconf::test {
namespace {

namespace fs = std::filesystem;

const std::string kWord = leaf("word", "string", "default");
const std::string kPassword = leaf("admin_passwd", "text", "factory");
const std::string kSwitch = leaf("encrypt_campass", "int", "0");

constexpr const char* kTrace = "/tmp/trace";

// A start with everything to do: a torn pass, names to add, passwords to scramble.
class Start : public testing::Test {
  protected:
    void SetUp() override {
        resetDevice(treeOf(kWord + kPassword));
        {
            Daemon daemon;
            ASSERT_TRUE(daemon.awaitReady());
            ASSERT_TRUE(set("SET_ACTION_DIRECT", {{"private.admin_passwd", "secret"}}));
            ASSERT_EQ(daemon.stop(), 0);
        }
        sql(paths::kLiveDb, "UPDATE CONFIG SET VALUE='kept too' WHERE NAME='private.word'");
        writeFile(paths::kNeutralTree,
                  treeOf(kWord + kPassword + kSwitch + leaf("user_password", "text", "later")));
        for (const auto& entry : fs::recursive_directory_iterator("/mnt")) {
            if (entry.is_regular_file()) {
                files_.emplace_back(entry.path(), contentOf(entry.path()));
            }
        }
    }
    void restore() const {
        for (const char* directory : {"/mnt/nand/conf", "/mnt/backup/conf"}) {
            fs::remove_all(directory);
            fs::create_directories(directory);
        }
        for (const auto& [path, content] : files_) {
            writeFile(path, content);
        }
    }
    // The numbers of the calls that change something, up to the moment when the daemon is ready.
    std::vector<long> modifyingCalls() const {
        restore();
        std::vector<std::string> environment = faults("fail 0 0");
        environment.push_back(std::string("KELCONF_FAULT_TRACE=") + kTrace);
        Daemon daemon{environment};
        EXPECT_TRUE(daemon.awaitReady());
        std::istringstream lines(contentOf(kTrace));
        std::vector<long> numbers;
        long number = 0;
        for (std::string kind, rest; lines >> number >> kind && std::getline(lines, rest);) {
            if (kind == "create" || kind == "write" || kind == "truncate" || kind == "remove" ||
                kind == "sync") {
                numbers.push_back(number);
            }
        }
        EXPECT_GT(numbers.size(), 30U);
        return numbers;
    }
    static void expectValues() {
        EXPECT_EQ(valueOf("private.word"), "kept too");
        EXPECT_EQ(valueOf("private.admin_passwd"), "secret");
        EXPECT_EQ(valueOf("private.user_password"), "later");
    }
    static void expectSoundStart() {
        DeviceLog log;
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        expectValues();
        EXPECT_EQ(daemon.stop(), 0);
        EXPECT_EQ(log.take().console.find("damaged"), std::string::npos);
        const SqlRows passwords =
            sql(paths::kLiveDb, "SELECT VALUE FROM CONFIG WHERE NAME IN "
                                "('private.admin_passwd','private.encrypt_campass') ORDER BY NAME");
        EXPECT_EQ(passwords, (SqlRows{{"NigmNSg3"}, {"1"}}));
    }

  private:
    std::vector<std::pair<std::string, std::string>> files_;
};

TEST_F(Start, KilledAfterAnyCallLosesNothing) {
    for (const long number : modifyingCalls()) {
        SCOPED_TRACE(number);
        restore();
        {
            Daemon daemon{faults("kill-after " + std::to_string(number))};
            daemon.awaitReady(); // killed before, or by a call of its threads
            daemon.killNow();
        }
        expectSoundStart();
    }
}

TEST_F(Start, ServesWhateverCallFails) {
    for (const long number : modifyingCalls()) {
        SCOPED_TRACE(number);
        restore();
        {
            Daemon daemon{faults("fail " + std::to_string(number) + " " +
                                 std::to_string(number % 2 == 0 ? ENOSPC : EIO))};
            ASSERT_TRUE(daemon.awaitReady());
            expectValues();
            EXPECT_EQ(daemon.stop(), 0);
        }
        expectSoundStart();
    }
}

TEST_F(Start, OnAFlashThatTakesNothingServesFromMemory) {
    for (const int error : {ENOSPC, EROFS, EIO}) {
        SCOPED_TRACE(error);
        restore();
        {
            Daemon daemon{faults("fail-on 1 " + std::to_string(error) + " modify")};
            ASSERT_TRUE(daemon.awaitReady());
            expectValues();
            EXPECT_EQ(daemon.stop(), 0);
        }
        expectSoundStart();
    }
}

// A flash that takes nothing, with a write on it that was cut short: the file is neither to be
// rolled back in place nor to be given up for its older backup.
TEST(HotJournal, OnAFlashThatTakesNothingIsSettledInMemory) {
    std::string elements = kWord;
    for (int i = 0; i < 200; ++i) {
        elements += leaf("filler" + std::to_string(i), "string", std::string(50, 'f'));
    }
    resetDevice(treeOf(elements));
    {
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        ASSERT_TRUE(set("SET_ACTION_DIRECT", {{"private.word", "older"}}));
        ASSERT_EQ(daemon.stop(), 0);
    }
    const std::string backup = contentOf(paths::kBackupDb);
    {
        Daemon daemon;
        ASSERT_TRUE(daemon.awaitReady());
        ASSERT_TRUE(set("SET_ACTION_DIRECT", {{"private.word", "kept"}}));
        daemon.killNow();
    }
    const pid_t writer = fork(); // killed in its transaction, after its first pages went in
    if (writer == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        sqlite3* database = nullptr;
        sqlite3_open(paths::kLiveDb, &database);
        sqlite3_exec(database,
                     "PRAGMA cache_size=1; BEGIN; UPDATE CONFIG SET VALUE=hex(zeroblob(9000));",
                     nullptr, nullptr, nullptr);
        kill(getpid(), SIGKILL);
    }
    waitpid(writer, nullptr, 0);
    ASSERT_TRUE(exists(paths::kLiveDbJournal));
    const std::string torn = contentOf(paths::kLiveDb);
    for (const int error : {EROFS, EIO}) {
        Daemon daemon{faults("fail-on 1 " + std::to_string(error) + " modify")};
        ASSERT_TRUE(daemon.awaitReady());
        EXPECT_EQ(valueOf("private.word"), "kept");
        EXPECT_EQ(daemon.stop(), 0);
        EXPECT_EQ(contentOf(paths::kLiveDb), torn);
        EXPECT_EQ(contentOf(paths::kBackupDb), backup);
    }
    Daemon daemon;
    ASSERT_TRUE(daemon.awaitReady());
    EXPECT_EQ(valueOf("private.word"), "kept");
    EXPECT_EQ(valueOf("private.filler7"), std::string(50, 'f'));
}

} // namespace
} // namespace kelconf::test
