// kelconf-init on a flash with little room left: a file system in memory, filled up to so many
// pages by a ballast file.

#include "faults/init_runs.h"
#include "paths.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <filesystem>

namespace kelconf::test {
namespace {

constexpr const char* kNeutral =
    "<r><ipcam type='trunk'><s type='multiple_instance' number='300'><l type='string' "
    "options='x|y'>S%auto of the streams, with a text that fills some pages</l></s></ipcam></r>";
constexpr const char* kExt = "<r><own type='trunk'><s type='multiple_instance' number='99'>"
                             "<x type='int'>%auto</x></s></own></r>";
constexpr const char* kBallast = "/mnt/nand/ballast";
constexpr std::size_t kMostPages = 40; // more than a build needs

std::size_t freePages() {
    struct statvfs info {};
    statvfs("/mnt/nand", &info);
    return info.f_bfree;
}

void leavePages(std::size_t pages) {
    std::filesystem::remove(kBallast);
    writeFile(kBallast, "");
    struct statvfs info {};
    statvfs("/mnt/nand", &info);
    const int fd = open(kBallast, O_WRONLY);
    const auto size = static_cast<off_t>((freePages() - pages) * info.f_bsize);
    ASSERT_EQ(posix_fallocate(fd, 0, size), 0);
    close(fd);
    ASSERT_EQ(freePages(), pages);
}

void fillFrom(const Reference& right, const Flash& start) {
    std::size_t incomplete = 0;
    for (std::size_t pages = 0; pages < kMostPages; ++pages) {
        SCOPED_TRACE(pages);
        std::filesystem::remove(kBallast);
        restoreFlash(start);
        ASSERT_NO_FATAL_FAILURE(leavePages(pages));
        const InitRun run = runInit();
        EXPECT_EQ(run.status, 0);
        EXPECT_EQ(run.out + run.err, "");
        const Flash left = readFlash();
        if (!sealMatches(left)) {
            ++incomplete;
        } else if (left != start) {
            EXPECT_EQ(right.wrongWith(left), "");
        }
        std::filesystem::remove(kBallast);
        EXPECT_EQ(runInit().status, 0);
        EXPECT_TRUE(sealed(readFlash()));
        EXPECT_EQ(right.wrongWith(readFlash()), "") << "with room again";
    }
    std::cout << "           " << incomplete << " of " << kMostPages << " sizes were too small\n";
    EXPECT_GT(incomplete, 0U) << "the disk was never full"; // an old database gives room back
    EXPECT_LT(incomplete, kMostPages) << "the disk was always full";
}

TEST(FullDisk, SealsNothingIncompleteAndHealsWithRoom) {
    resetDevice();
    writeFile(paths::kNeutralTree, kNeutral);
    Flash without_extension = Reference().files();
    without_extension["default.db"][5000] ^= 1;
    writeFile(paths::kExtTree, kExt);
    const Reference right;
    fillFrom(right, {});
    fillFrom(right, without_extension);
}

} // namespace
} // namespace kelconf::test
