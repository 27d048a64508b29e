// What the daemon stands on: the directory, the lock, file modes, notification.
#include "daemon/daemon_process.h"
#include "daemon/notify.h"
#include "daemon/runtime_dir.h"
#include "support/device_log.h"
#include "support/files.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace kelconf::test {
namespace {

namespace fs = std::filesystem;

constexpr const char* kDir = "/tmp/ground";

mode_t modeOf(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
    return info.st_mode & ALLPERMS;
}

class RuntimeDirectory : public testing::Test {
  protected:
    void SetUp() override {
        fs::remove_all(kDir);
        mask_ = umask(0);
    }
    void TearDown() override { umask(mask_); }

  private:
    mode_t mask_ = 0;
};

TEST_F(RuntimeDirectory, IsMadeClosedToOthersWrites) {
    EXPECT_TRUE(openRuntimeDirectory(kDir, geteuid()));
    EXPECT_EQ(modeOf(kDir), 0755U);
}

TEST_F(RuntimeDirectory, KeepsAStricterModeAndNarrowsALooserOne) {
    struct Case {
        mode_t found, left;
    };
    for (const Case& c : {Case{0700, 0700}, Case{0755, 0755}, Case{0777, 0755}, Case{01777, 01755},
                          Case{0770, 0750}}) {
        fs::remove_all(kDir);
        ASSERT_EQ(mkdir(kDir, 0700), 0);
        ASSERT_EQ(chmod(kDir, c.found), 0);
        EXPECT_TRUE(openRuntimeDirectory(kDir, geteuid()));
        EXPECT_EQ(modeOf(kDir), c.left) << std::oct << c.found;
    }
}

TEST_F(RuntimeDirectory, RefusesWhatIsNoDirectoryOfItsOwn) {
    fs::create_directory("/tmp/elsewhere");
    fs::create_directory_symlink("/tmp/elsewhere", kDir);
    EXPECT_FALSE(openRuntimeDirectory(kDir, geteuid())) << "a link to a directory";
    fs::remove(kDir);
    fs::create_symlink("/tmp/nowhere", kDir);
    EXPECT_FALSE(openRuntimeDirectory(kDir, geteuid())) << "a dangling link";
    EXPECT_FALSE(exists("/tmp/nowhere"));
    fs::remove(kDir);
    writeFile(kDir, "file");
    EXPECT_FALSE(openRuntimeDirectory(kDir, geteuid())) << "a file";
    EXPECT_EQ(contentOf(kDir), "file");
}

TEST_F(RuntimeDirectory, RefusesAnotherUsersDirectory) {
    ASSERT_EQ(mkdir(kDir, 0777), 0);
    DeviceLog log;
    EXPECT_FALSE(openRuntimeDirectory(kDir, geteuid() + 1));
    EXPECT_EQ(modeOf(kDir), 0777U) << "it is not ours to change";
    const auto lines = texts(log.take().syslog);
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_NE(lines[0].find("belongs to another user"), std::string::npos);
}

TEST_F(RuntimeDirectory, HoldsOneLockAtATime) {
    const Fd directory = openRuntimeDirectory(kDir, geteuid());
    DeviceLog log;
    {
        const Fd first = lockInstance(directory);
        ASSERT_TRUE(first);
        EXPECT_EQ(modeOf(std::string{kDir} + "/kelconfd.lock"), 0600U);
        EXPECT_FALSE(lockInstance(directory));
        const auto lines = texts(log.take().syslog);
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_NE(lines[0].find("as process " + std::to_string(getpid())), std::string::npos);
    }
    EXPECT_TRUE(lockInstance(directory)) << "a stale file is no lock";
}

TEST_F(RuntimeDirectory, DoesNotFollowALinkInPlaceOfTheLock) {
    const Fd directory = openRuntimeDirectory(kDir, geteuid());
    fs::create_symlink("/tmp/victim", std::string{kDir} + "/kelconfd.lock");
    EXPECT_FALSE(lockInstance(directory));
    EXPECT_FALSE(exists("/tmp/victim"));
}

// The group file is this device root's own.
TEST(FileModes, FollowTheBusGroup) {
    struct Case {
        const char* group;
        mode_t file, socket; // of 0644 and 0777 asked for
    };
    const std::string own = "kelbus:x:" + std::to_string(getegid()) + ":\n";
    for (const Case& c : {Case{"root:x:0:\n", 0600, 0700}, Case{own.c_str(), 0640, 0770},
                          Case{"kelbus:x:54321:\n", 0600, 0700}}) {
        const std::string before = contentOf("/etc/group");
        writeFile("/etc/group", c.group);
        // A process of its own: the group is looked up once, the mask is the process's.
        const pid_t child = fork();
        if (child == 0) {
            restrictFileModes();
            const mode_t mask = umask(0);
            _exit((0644U & ~mask) == c.file && (0777U & ~mask) == c.socket ? 0 : 1);
        }
        int status = -1;
        waitpid(child, &status, 0);
        writeFile("/etc/group", before);
        EXPECT_EQ(status, 0) << c.group;
    }
}

class Notification : public testing::TestWithParam<const char*> {};

TEST_P(Notification, ArrivesAsOneDatagram) {
    const std::string text = GetParam();
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::memcpy(name.sun_path, text.data(), text.size());
    if (text[0] == '@') {
        name.sun_path[0] = '\0';
    } else {
        fs::remove(text);
    }
    const Fd in{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    ASSERT_EQ(bind(in.get(), reinterpret_cast<const sockaddr*>(&name),
                   static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size())),
              0);
    setenv("NOTIFY_SOCKET", text.c_str(), 1);
    EXPECT_EQ(notifyManager(kNotifyReady), Notified::kSent);
    std::array<char, 64> received{};
    const ssize_t got = recv(in.get(), received.data(), received.size(), MSG_DONTWAIT);
    EXPECT_EQ(
        std::string_view(received.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0))),
        "READY=1");
    unsetenv("NOTIFY_SOCKET");
}

INSTANTIATE_TEST_SUITE_P(Addresses, Notification,
                         testing::Values("/tmp/manager", "@kelconf-test-manager"));

TEST(NotificationAddress, ThatIsNoneIsNoDanger) {
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(notifyManager(kNotifyReady), Notified::kNobody);
    setenv("NOTIFY_SOCKET", "", 1);
    EXPECT_EQ(notifyManager(kNotifyReady), Notified::kNobody);
    for (const std::string& address : {std::string{"relative"}, std::string{"/tmp/nobody-there"},
                                       "/" + std::string(200, 'x'), std::string(108, '@')}) {
        setenv("NOTIFY_SOCKET", address.c_str(), 1);
        EXPECT_EQ(notifyManager(kNotifyReady), Notified::kFailed) << address;
    }
    unsetenv("NOTIFY_SOCKET");
}

} // namespace
} // namespace kelconf::test
