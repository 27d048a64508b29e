#include "files/backup.h"

#include "base/fd.h"
#include "files/md5_sidecar.h"
#include "paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <memory>

namespace kelconf {

pthread_mutex_t backup_mutex = PTHREAD_MUTEX_INITIALIZER;
std::atomic<std::uint8_t> backup_pending{0};

namespace {

constexpr std::size_t kCopyBuffer = 131072; // bytes of one read and write
constexpr mode_t kBackupMode = 0640;        // it holds passwords

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
    Fd out{open(destination, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kBackupMode)};
    if (!out) {
        return -1;
    }
    Fd in{open(source, O_RDONLY | O_CLOEXEC)};
    if (!in) {
        return out.close();
    }
    const auto buffer = std::make_unique<std::byte[]>(kCopyBuffer);
    ssize_t got = 0;
    while ((got = read(in.get(), buffer.get(), kCopyBuffer)) > 0) {
        writeAll(out.get(), buffer.get(), static_cast<std::size_t>(got));
    }
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
