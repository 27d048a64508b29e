#include "daemon/bus_directory.h"

#include "bus/endpoints.h"
#include "files/bus_group.h"
#include "log/keldebug.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace kelconf {

namespace {

constexpr mode_t kUserOnly = 0700;
constexpr mode_t kUserAndGroup = 0750;
constexpr mode_t kLockMode = 0600;

bool refuse(const char* reason) {
    keldebug(kLogError, kToBoth, "bus directory %s: %s\n", endpoints::kDirectory, reason);
    return false;
}

} // namespace

bool readyBusDirectory() {
    if (mkdir(endpoints::kDirectory, kUserOnly) != 0 && errno != EEXIST) {
        return refuse(std::strerror(errno));
    }
    const Fd directory{
        open(endpoints::kDirectory, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
    struct stat info {};
    if (!directory || fstat(directory.get(), &info) != 0) {
        return refuse("is no directory");
    }
    if (info.st_uid != geteuid()) {
        return refuse("belongs to another user");
    }
    shareWithBusGroup(endpoints::kDirectory);
    if (fchmod(directory.get(), busGroup() ? kUserAndGroup : kUserOnly) != 0) {
        return refuse(std::strerror(errno));
    }
    return true;
}

Fd claimBus() {
    const std::string path = std::string{endpoints::kDirectory} + "/kelconfd.lock";
    Fd lock{open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kLockMode)};
    if (!lock) {
        refuse("cannot make the lock file");
        return {};
    }
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        keldebug(kLogError, kToBoth, "another kelconfd is running: it holds %s\n", path.c_str());
        return {};
    }
    return lock;
}

} // namespace kelconf
