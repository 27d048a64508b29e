#include "daemon/runtime_dir.h"

#include "files/bus_group.h"
#include "log/keldebug.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <optional>

namespace kelconf {

namespace {

constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kWriteOfOthers = S_IWGRP | S_IWOTH;
constexpr mode_t kUseByGroup = S_IRGRP | S_IXGRP;
constexpr const char* kLockName = "kelconfd.lock";
constexpr mode_t kLockMode = 0600;

// Asked for where the hard limit is lower and may be raised: each client takes one.
constexpr rlim_t kDescriptors = 65536;

Fd refuse(const char* path, const char* reason) {
    keldebug(kLogError, kToBoth, "%s cannot be used: %s\n", path, reason);
    return {};
}

// The process that wrote its number into the lock file; 0 when it cannot be told.
long holderOf(const Fd& lock) {
    std::array<char, 16> text{};
    const ssize_t got = pread(lock.get(), text.data(), text.size() - 1, 0);
    long number = 0;
    if (got > 0) {
        std::from_chars(text.data(), text.data() + got, number);
    }
    return number;
}

void nameHolder(const Fd& lock) {
    std::array<char, 16> text{};
    const auto end = std::to_chars(text.data(), text.data() + text.size() - 1, getpid());
    *end.ptr = '\n';
    const auto length = static_cast<std::size_t>(end.ptr - text.data()) + 1;
    // The number only serves the message of a second start; the lock itself is the kernel's.
    if (ftruncate(lock.get(), 0) == 0) {
        [[maybe_unused]] const ssize_t written = pwrite(lock.get(), text.data(), length, 0);
    }
}

// The bus's group, once this process has taken it on. Written before there is another thread.
std::optional<gid_t> group_of_process;

// A group that the system has got since the directory was made is let in from now on.
bool giveToBusGroup(const Fd& directory, const struct stat& info) {
    return !group_of_process || info.st_gid == *group_of_process ||
           fchown(directory.get(), static_cast<uid_t>(-1), *group_of_process) == 0;
}

bool correctMode(const Fd& directory, const struct stat& info) {
    const mode_t allowed = group_of_process ? kUseByGroup : 0;
    const mode_t mode = (info.st_mode & ALLPERMS & ~kWriteOfOthers) | allowed;
    return (info.st_mode & ALLPERMS) == mode || fchmod(directory.get(), mode) == 0;
}

} // namespace

Fd openRuntimeDirectory(const char* path, uid_t owner) {
    if (mkdir(path, kDirectoryMode) != 0 && errno != EEXIST) {
        return refuse(path, std::strerror(errno));
    }
    Fd directory{open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
    if (!directory) {
        const bool other_kind = errno == ENOTDIR || errno == ELOOP;
        return refuse(path, other_kind ? "it is not a directory of its own" : std::strerror(errno));
    }
    struct stat info {};
    if (fstat(directory.get(), &info) != 0) {
        return refuse(path, std::strerror(errno));
    }
    if (info.st_uid != owner) {
        return refuse(path, "it belongs to another user");
    }
    if (!giveToBusGroup(directory, info)) {
        keldebug(kLogWarning, kToBoth, "%s stays closed to the bus's group: %s\n", path,
                 std::strerror(errno));
    }
    if (!correctMode(directory, info)) {
        return refuse(path, "others may write to it");
    }
    return directory;
}

Fd lockInstance(const Fd& directory) {
    Fd lock{
        openat(directory.get(), kLockName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kLockMode)};
    if (!lock) {
        keldebug(kLogError, kToBoth, "cannot open the lock file %s: %s\n", kLockName,
                 std::strerror(errno));
        return {};
    }
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK) {
            keldebug(kLogError, kToBoth, "kelconfd runs already, as process %ld\n", holderOf(lock));
        } else {
            keldebug(kLogError, kToBoth, "cannot lock %s: %s\n", kLockName, std::strerror(errno));
        }
        return {};
    }
    nameHolder(lock);
    return lock;
}

void restrictFileModes() {
    const std::optional<gid_t> group = busGroup();
    const bool shared = group && (getegid() == *group || setegid(*group) == 0);
    if (group && !shared) {
        keldebug(kLogWarning, kToBoth, "no right to the bus's group, serving the own user only\n");
    }
    group_of_process = shared ? group : std::nullopt;
    umask(shared ? S_IRWXO : S_IRWXG | S_IRWXO);
}

void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        keldebug(kLogWarning, kToBoth, "limit of open descriptors unknown: %s\n",
                 std::strerror(errno));
        return;
    }
    const rlimit wanted{std::max(limit.rlim_max, kDescriptors),
                        std::max(limit.rlim_max, kDescriptors)};
    const rlimit allowed{limit.rlim_max, limit.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &wanted) != 0 && setrlimit(RLIMIT_NOFILE, &allowed) != 0) {
        keldebug(kLogWarning, kToBoth, "limit of open descriptors stays at %llu: %s\n",
                 static_cast<unsigned long long>(limit.rlim_cur), std::strerror(errno));
        return;
    }
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < kDescriptors) {
        keldebug(kLogWarning, kToBoth, "at most %llu open descriptors\n",
                 static_cast<unsigned long long>(limit.rlim_cur));
    }
}

} // namespace kelconf
