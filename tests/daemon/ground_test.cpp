// What the daemon stands on, as functions: whose directory, which modes, whom it tells. The rest is
// tested with the daemon itself (life_test.cpp).
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

mode_t modeOf(const char* path) {
    struct stat info {};
    EXPECT_EQ(lstat(path, &info), 0) << path;
    return info.st_mode & ALLPERMS;
}

TEST(RuntimeDirectory, IsClosedToOthersWritesAndRefusedToThem) {
    const mode_t mask = umask(0);
    fs::remove_all(kDir);
    EXPECT_TRUE(openRuntimeDirectory(kDir, geteuid()));
    EXPECT_EQ(modeOf(kDir), 0755U) << "made";
    const std::pair<mode_t, mode_t> found_and_left[] = {
        {0700, 0700}, {0755, 0755}, {0777, 0755}, {01777, 01755}, {0770, 0750}};
    for (const auto& [found, left] : found_and_left) {
        ASSERT_EQ(chmod(kDir, found), 0);
        EXPECT_TRUE(openRuntimeDirectory(kDir, geteuid()));
        EXPECT_EQ(modeOf(kDir), left) << std::oct << found;
    }
    ASSERT_EQ(chmod(kDir, 0777), 0);
    DeviceLog log;
    EXPECT_FALSE(openRuntimeDirectory(kDir, geteuid() + 1));
    EXPECT_EQ(modeOf(kDir), 0777U) << "it is not ours to change";
    EXPECT_NE(log.take().console.find("belongs to another user"), std::string::npos);
    umask(mask);
}

TEST(RuntimeDirectory, HoldsOneLockAtATimeInAFileOfItsOwn) {
    fs::remove_all(kDir);
    const Fd directory = openRuntimeDirectory(kDir, geteuid());
    fs::create_symlink("/tmp/victim", "/tmp/ground/kelconfd.lock");
    EXPECT_FALSE(lockInstance(directory)) << "a link";
    EXPECT_FALSE(exists("/tmp/victim"));
    fs::remove("/tmp/ground/kelconfd.lock");
    {
        const Fd first = lockInstance(directory);
        ASSERT_TRUE(first);
        EXPECT_EQ(modeOf("/tmp/ground/kelconfd.lock"), 0600U);
        EXPECT_FALSE(lockInstance(directory));
    }
    EXPECT_TRUE(lockInstance(directory)) << "a stale file is no lock";
}

// The group file is this device root's own.
TEST(FileModes, FollowTheBusGroup) {
    struct Case {
        std::string group;
        mode_t file, socket; // of 0644 and 0777 asked for
    };
    for (const Case& c : {Case{"root:x:0:\n", 0600, 0700},
                          Case{"kelbus:x:" + std::to_string(getegid()) + ":\n", 0640, 0770},
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

TEST(Notification, ArrivesAsOneDatagramOrIsNoDanger) {
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(notifyManager(kNotifyReady), Notified::kNobody);
    struct Case {
        std::string address;
        bool listened_to;
        Notified result;
    };
    for (const Case& c :
         {Case{"/tmp/manager", true, Notified::kSent},
          Case{"@kelconf-test-manager", true, Notified::kSent}, Case{"", false, Notified::kNobody},
          Case{"relative", false, Notified::kFailed},
          Case{"/tmp/nobody-there", false, Notified::kFailed},
          Case{"/" + std::string(200, 'x'), false, Notified::kFailed},
          Case{std::string(108, '@'), false, Notified::kFailed}}) {
        const Fd in{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
        if (c.listened_to) {
            sockaddr_un name{};
            name.sun_family = AF_UNIX;
            std::memcpy(name.sun_path, c.address.data(), c.address.size());
            name.sun_path[0] = c.address[0] == '@' ? '\0' : '/';
            ASSERT_EQ(
                bind(in.get(), reinterpret_cast<const sockaddr*>(&name),
                     static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + c.address.size())),
                0);
        }
        setenv("NOTIFY_SOCKET", c.address.c_str(), 1);
        EXPECT_EQ(notifyManager(kNotifyReady), c.result) << c.address;
        std::array<char, 64> received{};
        const ssize_t got = recv(in.get(), received.data(), received.size() - 1, MSG_DONTWAIT);
        EXPECT_STREQ(got < 0 ? "" : received.data(), c.listened_to ? "READY=1" : "");
    }
    unsetenv("NOTIFY_SOCKET");
}

} // namespace
} // namespace kelconf::test
