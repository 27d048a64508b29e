// A library to preload (LD_PRELOAD) that records what a program does to the files below /mnt
// (recording.py), makes calls fail as a scene wants it, and lets the program's waits pass faster.
// Flushes are recorded, not made: what they would have brought is what the images are built from.
// Any number of threads; one operation at a time.

#include "interposed.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>

namespace {

constexpr std::int64_t kHaste = 50; // so many times faster pass the waits of the program
constexpr std::int64_t kSecond = 1'000'000'000; // ns

struct RecordHead {
    char operation[12]; // its name
    std::uint32_t path_size;
    std::uint64_t file; // inode number
    std::int64_t number;
    std::uint64_t data_size;
};

// Faults: from call `skip` + 1 on of those that `calls` and `path` choose, `times` fail with
// `error`; -1 kills the program there.
struct Control {
    int skip, times, error;
    char calls[8]; // o open for writing, w write, t truncate, d names, s flushes
    char path[32]; // how the path ends; empty: any
};

std::mutex mutex;

int openUnrecorded(const char* path, int flags) {
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags | O_CLOEXEC, 0600));
}

// One write(2) each, before the next operation begins.
void record(std::string_view operation, std::string_view path, std::uint64_t file = 0,
            std::int64_t number = 0, std::string_view data = {}) {
    static const int trace = openUnrecorded("/tmp/powercut.trace", O_WRONLY | O_CREAT | O_APPEND);
    RecordHead head{"", static_cast<std::uint32_t>(path.size()), file, number, data.size()};
    operation.copy(head.operation, sizeof head.operation);
    std::string text{reinterpret_cast<const char*>(&head), sizeof head};
    text.append(path).append(data);
    if (syscall(SYS_write, trace, text.data(), text.size()) != static_cast<long>(text.size())) {
        std::abort(); // a trace with a gap proves nothing
    }
}

// True, with errno set, when this call is to fail.
bool refused(char call, std::string_view path) {
    static auto* control =
        static_cast<Control*>(mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED,
                                   openUnrecorded("/tmp/powercut.control", O_RDWR), 0));
    if (control == MAP_FAILED || control->times == 0 ||
        std::string_view{control->calls}.find(call) == std::string_view::npos ||
        !path.ends_with(control->path) || control->skip-- > 0) {
        return false;
    }
    control->skip = 0;
    if (control->error == -1) {
        syscall(SYS_kill, getpid(), SIGKILL);
    }
    --control->times;
    errno = control->error;
    return true;
}

std::string watched(const char* path) {
    return std::string_view{path}.starts_with("/mnt/") ? path : "";
}

std::string pathOf(int fd) {
    const int error = errno;
    std::array<char, 256> path{};
    readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path.data(), path.size() - 1);
    errno = error;
    const std::string name = watched(path.data());
    return name.substr(0, name.find(" (deleted)"));
}

struct stat infoOf(int fd, const char* path = "") {
    struct stat info {};
    fstatat(fd, path, &info, AT_SYMLINK_NOFOLLOW | AT_EMPTY_PATH);
    return info;
}

// Makes a call with `make`, and tells what it did with `note`. One whose path is empty is not
// watched, and may block.
template <typename Make, typename Note>
auto operate(char call, const std::string& path, Make make, Note note) -> decltype(make()) {
    if (path.empty()) {
        return make();
    }
    const std::lock_guard lock{mutex};
    const auto result = refused(call, path) ? -1 : make();
    result >= 0 ? note(result) : void();
    return result;
}

template <typename Make>
ssize_t writeAt(int fd, const void* bytes, off_t at, Make make) {
    return operate('w', pathOf(fd), make, [&](ssize_t size) {
        record("write", pathOf(fd), infoOf(fd).st_ino, at,
               {static_cast<const char*>(bytes), static_cast<std::size_t>(size)});
    });
}

int flush(int fd, const char* operation) {
    return operate(
        's', pathOf(fd), [] { return 0; },
        [&](int) {
            const struct stat info = infoOf(fd);
            record(S_ISDIR(info.st_mode) ? "names" : operation, pathOf(fd), info.st_ino);
        });
}

template <typename Make>
int changeName(const char* operation, const char* path, const char* from, Make make) {
    const std::uint64_t file = infoOf(AT_FDCWD, from == nullptr ? path : from).st_ino;
    return operate('d', watched(path), make,
                   [&](int) { record(operation, path, file, 0, from == nullptr ? "" : from); });
}

// A moment between the two times, of which the program's own passes faster.
timespec scaled(const timespec& moment, std::int64_t up, std::int64_t down) {
    const std::int64_t time = (moment.tv_sec * kSecond + moment.tv_nsec) / down * up;
    return {time / kSecond, time % kSecond};
}

} // namespace

extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const struct stat before = infoOf(AT_FDCWD, path);
    return operate((flags & O_ACCMODE) == O_RDONLY ? '-' : 'o', watched(path),
                   [&] { return REAL(open)(path, flags, mode); },
                   [&](int fd) {
                       if (before.st_ino == 0) {
                           record("create", path, infoOf(fd).st_ino);
                       } else if ((flags & O_TRUNC) != 0 && before.st_size > 0) {
                           record("truncate", path, before.st_ino);
                       }
                   });
}
int open64(const char* path, int flags, ...) SAME_AS("open");

ssize_t pwrite(int fd, const void* bytes, size_t size, off_t at) {
    return writeAt(fd, bytes, at, [&] { return REAL(pwrite)(fd, bytes, size, at); });
}
ssize_t pwrite64(int fd, const void* bytes, size_t size, off64_t at) SAME_AS("pwrite");
ssize_t write(int fd, const void* bytes, size_t size) {
    const off_t at = lseek(fd, 0, SEEK_CUR);
    return writeAt(fd, bytes, at, [&] { return REAL(write)(fd, bytes, size); });
}

int ftruncate(int fd, off_t length) noexcept {
    return operate(
        't', pathOf(fd), [&] { return REAL(ftruncate)(fd, length); },
        [&](int) { record("truncate", pathOf(fd), infoOf(fd).st_ino, length); });
}
int ftruncate64(int fd, off64_t length) noexcept SAME_AS("ftruncate");

int unlink(const char* path) noexcept {
    return changeName("unlink", path, nullptr, [&] { return REAL(unlink)(path); });
}
int rename(const char* from, const char* to) noexcept {
    return changeName("rename", to, from, [&] { return REAL(rename)(from, to); });
}
int link(const char* from, const char* to) noexcept {
    return changeName("link", to, from, [&] { return REAL(link)(from, to); });
}

int fsync(int fd) {
    return flush(fd, "fsync");
}
int fdatasync(int fd) {
    return flush(fd, "fdatasync");
}
void sync() noexcept {
    const std::lock_guard lock{mutex};
    record("sync", "");
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    const auto result = static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = clock == CLOCK_MONOTONIC ? scaled(*time, kHaste, 1) : *time;
    return result;
}
int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* lock, clockid_t clock,
                           const timespec* until) {
    const timespec end = clock == CLOCK_MONOTONIC ? scaled(*until, 1, kHaste) : *until;
    return REAL(pthread_cond_clockwait)(condition, lock, clock, &end);
}

} // extern "C"
