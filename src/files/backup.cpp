#include "files/backup.h"

#include "base/fd.h"
#include "files/md5_sidecar.h"
#include "paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>

namespace kelconf {

pthread_mutex_t backup_mutex = PTHREAD_MUTEX_INITIALIZER;
std::atomic<std::uint8_t> backup_pending{0};

namespace {

constexpr std::size_t kCopyBuffer = 131072; // bytes of one read
constexpr std::size_t kCompared = 4096;     // bytes that are written when one of them differs
constexpr mode_t kBackupMode = 0640;        // it holds passwords

// One stretch of the source, and what the destination had there.
struct Stretch {
    off_t at = 0;
    std::size_t size = 0;
    std::size_t before_size = 0;
    std::array<std::byte, kCopyBuffer> bytes, before;
};

// To that size where it is longer. Where this fails, nothing else would help.
void cutFile(int fd, off_t size) {
    struct stat info {};
    static_cast<void>(fstat(fd, &info) == 0 && info.st_size > size && ftruncate(fd, size) == 0);
}

std::size_t endOfBlock(const Stretch& stretch, std::size_t at) {
    return std::min(at + kCompared, stretch.size);
}

bool differs(const Stretch& stretch, std::size_t at) {
    const std::size_t end = endOfBlock(stretch, at);
    return end > stretch.before_size ||
           std::memcmp(&stretch.bytes[at], &stretch.before[at], end - at) != 0;
}

// Neighbours that differ go out in one write. False when one failed.
bool writeDifferences(int fd, const Stretch& stretch) {
    for (std::size_t at = 0; at < stretch.size;) {
        std::size_t end = at;
        while (end < stretch.size && differs(stretch, end)) {
            end = endOfBlock(stretch, end);
        }
        if (end > at && (lseek(fd, stretch.at + static_cast<off_t>(at), SEEK_SET) < 0 ||
                         !writeAll(fd, &stretch.bytes[at], end - at))) {
            return false;
        }
        at = endOfBlock(stretch, end);
    }
    return true;
}

// `before` is the destination, read; nothing where it cannot be read. The destination ends where
// reading or writing did: no old blocks follow new ones once it is sealed.
void copyDifferences(int source, int before, int destination) {
    const auto stretch = std::make_unique<Stretch>();
    auto& [at, size, before_size, bytes, old_bytes] = *stretch;
    for (ssize_t got = 0; (got = readSome(source, bytes.data(), kCopyBuffer)) > 0; at += got) {
        size = static_cast<std::size_t>(got);
        const ssize_t had = pread(before, old_bytes.data(), size, at);
        before_size = had < 0 ? 0 : static_cast<std::size_t>(had);
        if (!writeDifferences(destination, *stretch)) {
            break;
        }
    }
    cutFile(destination, at);
}

} // namespace

std::int32_t CreateThread(void* (*routine)(void*), void* argument) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        std::puts("thread attribution initial error!!");
    }
    int error = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (error == 0) {
        pthread_t thread{};
        error = pthread_create(&thread, &attributes, routine, argument);
        if (error != 0) {
            std::puts("thread create error!!");
        }
    }
    pthread_attr_destroy(&attributes);
    return error;
}

std::int32_t copyFile(const char* source, const char* destination) {
    struct stat info {};
    if (stat(source, &info) != 0) {
        return -1;
    }
    Fd out{open(destination, O_WRONLY | O_CREAT | O_CLOEXEC, kBackupMode)};
    if (!out) {
        return -1;
    }
    Fd in{open(source, O_RDONLY | O_CLOEXEC)};
    if (!in) {
        cutFile(out.get(), 0);
        return out.close();
    }
    const Fd before{open(destination, O_RDONLY | O_CLOEXEC)};
    copyDifferences(in.get(), before.get(), out.get());
    // Also without a difference: an earlier copy may have been cut short before its flush.
    fsync(out.get());
    out.close();
    return in.close();
}

std::int32_t creatBackupDB() {
    return copyFile(paths::kLiveDb, paths::kBackupDb);
}

void createBackupDBTask() {
    if (backup_pending == 0) {
        return;
    }
    {
        const BackupSection lock;
        creatBackupDB();
        createFileMD5(paths::kBackupDb, paths::kBackupDbMd5);
        backup_pending = 0;
    }
    sync();
}

} // namespace kelconf
