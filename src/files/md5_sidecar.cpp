#include "files/md5_sidecar.h"

#include "base/fd.h"
#include "files/storage_fault.h"
#include "log/keldebug.h"
#include "paths.h"
#include "qlibc/use_qlibc.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace kelconf {

namespace {

constexpr std::size_t kDigestSize = 16;
using Digest = std::array<unsigned char, kDigestSize>;

constexpr mode_t kSidecarMode = 0644;

bool present(const char* path) {
    struct stat info {};
    return stat(path, &info) == 0;
}

bool checkPresence(const char* path, const char* message) {
    if (present(path)) {
        return true;
    }
    keldebug(kLogInfo, kToBoth, "%s", message);
    return false;
}

// Offset 0 and length 0 mean the whole file.
bool digestOf(const char* file, Digest& digest) {
    digest.fill(0);
    return qhashmd5_file(file, 0, 0, digest.data());
}

// The same; a failure is logged.
bool digestLogged(const char* file, Digest& digest) {
    if (digestOf(file, digest)) {
        return true;
    }
    keldebug(kLogError, kToBoth, "create hash failed \n");
    return false;
}

bool checkDatabasePair(const char* file, const char* sidecar, const char* message) {
    if (!present(sidecar)) {
        return false;
    }
    if (checkFileMD5(file, sidecar)) {
        return true;
    }
    keldebug(kLogError, kToBoth, "%s", message);
    return false;
}

bool checkTreePair(const char* file, const char* sidecar, const char* message) {
    if (checkFileMD5(file, sidecar)) {
        return true;
    }
    keldebug(kLogInfo, kToBoth, "%s", message);
    return false;
}

} // namespace

bool checkHash(const char* file) {
    Digest digest{};
    return digestLogged(file, digest);
}

bool createFileMD5(const char* file, const char* sidecar) {
    Digest digest{};
    if (!digestLogged(file, digest)) {
        return false;
    }
    const Fd out{open(sidecar, O_RDWR | O_CREAT | O_CLOEXEC, kSidecarMode)};
    if (!out) {
        return false;
    }
    // A short or failed write leaves a sidecar that matches nothing: the safe side.
    const ssize_t written = pwrite(out.get(), digest.data(), digest.size(), 0);
    return fdatasync(out.get()) == 0 && written == static_cast<ssize_t>(digest.size());
}

bool checkFileMD5(const char* file, const char* sidecar) {
    if (!present(file) || !present(sidecar)) {
        return false;
    }
    Digest computed{};
    if (!digestOf(file, computed)) {
        return false;
    }
    const Fd in{open(sidecar, O_RDONLY | O_CLOEXEC)};
    if (!in) {
        return false;
    }
    Digest stored{};
    [[maybe_unused]] const ssize_t got = read(in.get(), stored.data(), stored.size());
    return stored == computed;
}

bool checkDefaultConfigDBMD5() {
    return checkDatabasePair(paths::kDefaultDb, paths::kDefaultDbMd5,
                             "default database MD5 checksum error\n");
}

bool checkConfigDBMD5() {
    return checkDatabasePair(paths::kLiveDb, paths::kLiveDbMd5,
                             "Config database MD5 checksum error\n");
}

bool checkConfigBackupDBMD5() {
    return checkDatabasePair(paths::kBackupDb, paths::kBackupDbMd5,
                             "backup database MD5 checksum error\n");
}

bool checkXMLFileStatus() {
    return checkTreePair(paths::kNeutralTree, paths::kNeutralTreeMd5, "XMl has new update\n");
}

bool checkExtXMLFileStatus() {
    return checkTreePair(paths::kExtTree, paths::kExtTreeMd5, "Ext XMl has new update\n");
}

bool checkDefaultFile() {
    return checkPresence(paths::kDefaultDb, "default file missing\n");
}

bool checkConfFile() {
    return checkPresence(paths::kLiveDb, "conf file missing\n");
}

bool checkConfBackupFile() {
    return checkPresence(paths::kBackupDb, "conf backup file missing\n");
}

bool extTreeFileExist() {
    if (present(paths::kExtTree)) {
        return true;
    }
    const int error = errno;
    if (error != ENOENT && error != ENOTDIR) {
        keldebug(kLogError, kToBoth, "%s cannot be looked for: %s\n", paths::kExtTree,
                 std::generic_category().message(error).c_str());
    }
    if (isStorageError(error)) {
        noteStorageFault();
    }
    return false;
}

} // namespace kelconf
