#include "live/files.h"

#include "files/backup.h"
#include "files/bus_group.h"
#include "log/keldebug.h"
#include "paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kelconf {

namespace {

constexpr std::array kCompanions = {paths::kLiveDbJournal, paths::kLiveDbWal, paths::kLiveDbShm};

constexpr std::array kProtected = {
    paths::kLiveDb,    paths::kLiveDbMd5,    paths::kLiveDbSeal,     paths::kLiveDbJournal,
    paths::kLiveDbWal, paths::kLiveEvidence, paths::kLiveNew,        paths::kLiveNewMd5,
    paths::kBackupDb,  paths::kBackupDbMd5,  paths::kBackupDbJournal};

constexpr mode_t kPrivateMode = 0600;
constexpr mode_t kSharedMode = 0640;

// SQLite's lock bytes: pending, reserved, then those that readers share.
constexpr off_t kFirstLockByte = 0x40000000;
constexpr off_t kLockBytes = 512;

void logFailure(const char* doing, const char* path) {
    keldebug(kLogError, kToBoth, "cannot %s %s: %s\n", doing, path, std::strerror(errno));
}

void protectFile(const char* path) {
    shareWithBusGroup(path);
    struct stat info {};
    if (lstat(path, &info) != 0 || !S_ISREG(info.st_mode)) {
        return;
    }
    const bool shared = busGroup() == info.st_gid;
    const mode_t mode = shared ? kSharedMode : kPrivateMode;
    if ((info.st_mode & ALLPERMS) != mode && chmod(path, mode) != 0) {
        logFailure("protect", path);
    }
}

// A second name for it, so that the live one is never missing; not every file system has that.
bool moveToEvidence() {
    return link(paths::kLiveDb, paths::kLiveEvidence) == 0 ||
           rename(paths::kLiveDb, paths::kLiveEvidence) == 0;
}

} // namespace

bool filePresent(const char* path) {
    struct stat info {};
    return lstat(path, &info) == 0;
}

void removeFile(const char* path) {
    if (unlink(path) != 0 && errno != ENOENT) {
        logFailure("remove", path);
    }
}

std::uint64_t sizeOfFile(const char* path) {
    struct stat info {};
    return lstat(path, &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
}

bool flushDirectory(const char* path) {
    const Fd directory{open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (directory && fsync(directory.get()) == 0) {
        return true;
    }
    logFailure("flush", path);
    return false;
}

void removeCompanions() {
    for (const char* path : kCompanions) {
        removeFile(path);
    }
}

void keepEvidence(Evidence way) {
    if (filePresent(paths::kLiveEvidence) || sizeOfFile(paths::kLiveDb) == 0) {
        return;
    }
    const bool kept = way == Evidence::kMove ? moveToEvidence()
                                             : copyFile(paths::kLiveDb, paths::kLiveEvidence) == 0;
    if (kept) {
        keldebug(kLogWarning, kToBoth, "damaged live database kept as %s\n", paths::kLiveEvidence);
    } else {
        logFailure("set aside", paths::kLiveDb);
    }
}

void dropEvidence() {
    if (filePresent(paths::kLiveEvidence)) {
        keldebug(kLogWarning, kToBoth, "no room, %s removed\n", paths::kLiveEvidence);
        removeFile(paths::kLiveEvidence);
    }
}

bool roomFor(std::uint64_t bytes) {
    struct statvfs info {};
    return statvfs(paths::kConfDirectory, &info) == 0 && (info.f_flag & ST_RDONLY) == 0 &&
           info.f_bavail * info.f_frsize >= bytes;
}

// A file that cannot be opened for writing is one that nobody writes.
LiveLock::LiveLock() : file_(open(paths::kLiveDb, O_RDWR | O_CLOEXEC | O_NOFOLLOW)) {
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = kFirstLockByte;
    range.l_len = kLockBytes;
    held_ = !file_ || fcntl(file_.get(), F_OFD_SETLK, &range) == 0;
}

void protectStoredFiles() {
    for (const char* path : kProtected) {
        protectFile(path);
    }
}

} // namespace kelconf
