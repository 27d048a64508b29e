#include "daemon/live_files.h"

#include "files/bus_group.h"
#include "files/fd.h"
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

constexpr const char* kDirectory = "/mnt/nand/conf";
constexpr const char* kEvidence = "/mnt/nand/conf/conf.db.damaged";
constexpr const char* kReplacementJournal = "/mnt/nand/conf/conf.db.new-journal";

// What SQLite may leave beside the database.
constexpr std::array kCompanions = {paths::kLiveDbJournal, "/mnt/nand/conf/conf.db-wal",
                                    "/mnt/nand/conf/conf.db-shm"};

constexpr std::array kProtected = {paths::kLiveDb,
                                   paths::kLiveDbMd5,
                                   paths::kLiveDbJournal,
                                   "/mnt/nand/conf/conf.db-wal",
                                   kEvidence,
                                   kLiveReplacement,
                                   paths::kBackupDb,
                                   paths::kBackupDbMd5,
                                   "/mnt/backup/conf/conf_backup.db-journal"};

constexpr mode_t kPrivateMode = 0600;
constexpr mode_t kSharedMode = 0640;

void logFailure(const char* doing, const char* path) {
    keldebug(kLogError, kToBoth, "cannot %s %s: %s\n", doing, path, std::strerror(errno));
}

bool flushPath(const char* path, int flags) {
    const Fd file{open(path, flags | O_CLOEXEC)};
    if (file && fsync(file.get()) == 0) {
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

void dropReplacement() {
    removeFile(kLiveReplacement);
    removeFile(kReplacementJournal);
}

void keepEvidence() {
    if (filePresent(kEvidence) || sizeOfFile(paths::kLiveDb) == 0) {
        return;
    }
    // A second name for it, so that the live one is never missing; not every file system has that.
    if (link(paths::kLiveDb, kEvidence) == 0 || rename(paths::kLiveDb, kEvidence) == 0) {
        keldebug(kLogWarning, kToBoth, "damaged live database kept as %s\n", kEvidence);
    } else {
        logFailure("set aside", paths::kLiveDb);
    }
}

void dropEvidence() {
    if (filePresent(kEvidence)) {
        keldebug(kLogWarning, kToBoth, "no room, %s removed\n", kEvidence);
        removeFile(kEvidence);
    }
}

bool removeLiveFile() {
    removeCompanions();
    removeFile(paths::kLiveDb);
    return !filePresent(paths::kLiveDb);
}

bool putReplacementInPlace() {
    if (flushPath(kLiveReplacement, O_RDONLY)) {
        removeCompanions();
        if (rename(kLiveReplacement, paths::kLiveDb) == 0) {
            flushPath(kDirectory, O_RDONLY | O_DIRECTORY);
            return true;
        }
        logFailure("replace", paths::kLiveDb);
    }
    dropReplacement();
    return false;
}

bool roomFor(std::uint64_t bytes) {
    struct statvfs info {};
    return statvfs(kDirectory, &info) == 0 && (info.f_flag & ST_RDONLY) == 0 &&
           info.f_bavail * info.f_frsize >= bytes;
}

std::uint64_t sizeOfFile(const char* path) {
    struct stat info {};
    return lstat(path, &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
}

void protectStoredFiles() {
    for (const char* path : kProtected) {
        protectFile(path);
    }
}

} // namespace kelconf
