// The group that lets programs in.
#include "client/bus_session.h"
#include "daemon/daemon_process.h"
#include "support/files.h"

#include <sys/stat.h>

namespace kelconf::test {
namespace {

// The group file is this device root's own.
TEST(Group, IsTakenUpAtTheNextStart) {
    resetDevice(treeOf(leaf("a", "string", "1")));
    const std::string before = readFile("/etc/group");
    struct Scene {
        std::string group;
        unsigned directory, socket, database;
    };
    for (const Scene& scene :
         {Scene{before, 0700, 0700, 0600},
          Scene{"kelbus:x:" + std::to_string(getegid()) + ":\n", 0750, 0770, 0640}}) {
        writeFile("/etc/group", scene.group);
        Daemon service;
        ASSERT_TRUE(service.awaitReady());
        const std::pair<const char*, unsigned> modes[] = {
            {"/tmp/kelbus", scene.directory},
            {"/tmp/kelbus/kelbus_getsock", scene.socket},
            {"/mnt/nand/conf/conf.db", scene.database}};
        for (const auto& [path, mode] : modes) {
            struct stat info {};
            ASSERT_EQ(stat(path, &info), 0) << path;
            EXPECT_EQ(info.st_mode & ALLPERMS, mode) << path << " with " << scene.group;
        }
        service.stop();
    }
    writeFile("/etc/group", before);
}

} // namespace
} // namespace kelconf::test
