// A library to preload (LD_PRELOAD) that records what a program does to the files below /mnt
// (trace.h), makes calls fail as the scene wants it, and lets the program's waits pass faster.
// Flushes are recorded, not made: what they would have brought is what the images are built from.
// Any number of threads; one operation at a time.

#include "powercut/trace.h"

#include <dlfcn.h>
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
#include <cstdlib>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>

namespace {

using kelconf::powercut::Control;
using kelconf::powercut::Op;
using kelconf::powercut::Record;
namespace powercut = kelconf::powercut;

template <typename Function>
Function next(Function /*like*/, const char* name) {
    void* found = dlsym(RTLD_NEXT, name);
    if (found == nullptr) {
        std::abort();
    }
    return reinterpret_cast<Function>(found);
}

// The C library's own function of this name, looked up once.
#define REAL(name)                                                                                 \
    ([] {                                                                                          \
        static const auto found = next(&::name, #name);                                            \
        return found;                                                                              \
    }())

// Never destroyed: the program still closes files while its statics end.
struct Recorder {
    std::mutex mutex;
    std::array<std::string, 4096> paths; // of open watched files
    int trace = static_cast<int>(syscall(SYS_openat, AT_FDCWD, powercut::kTracePath,
                                         O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    Control* control = mapControl();

    static Control* mapControl() {
        const auto fd = static_cast<int>(
            syscall(SYS_openat, AT_FDCWD, powercut::kControlPath, O_RDWR | O_CLOEXEC));
        void* memory = mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (memory == MAP_FAILED) {
            std::abort();
        }
        return static_cast<Control*>(memory);
    }
};

Recorder& recorder() {
    static auto* made = new Recorder;
    return *made;
}

void record(Op op, const std::string& path, std::uint64_t file = 0, std::int64_t number = 0,
            std::string data = {}) {
    if (!powercut::appendRecord(recorder().trace, {op, file, number, path, std::move(data)})) {
        std::abort(); // a trace with a gap proves nothing
    }
}

bool watched(const char* path) {
    return path != nullptr && std::string_view{path}.starts_with("/mnt/");
}

// The path of an open watched file, else empty.
std::string& pathOf(int fd) {
    static std::string none;
    return fd < 0 ? none : recorder().paths.at(static_cast<std::size_t>(fd));
}

// True, with errno set, when this call is to fail.
bool refused(char call, std::string_view path) {
    Control& control = *recorder().control;
    if (control.times == 0 ||
        std::string_view{control.calls}.find(call) == std::string_view::npos ||
        !path.ends_with(control.path) || control.skip-- > 0) {
        return false;
    }
    control.skip = 0;
    if (control.error == powercut::kKill) {
        syscall(SYS_kill, getpid(), SIGKILL);
    }
    --control.times;
    errno = control.error;
    return true;
}

struct stat infoOf(const char* path) {
    struct stat info {};
    if (syscall(SYS_newfstatat, AT_FDCWD, path, &info, AT_SYMLINK_NOFOLLOW) != 0) {
        info = {};
    }
    return info;
}

struct stat infoOf(int fd) {
    struct stat info {};
    syscall(SYS_fstat, fd, &info);
    return info;
}

int openRecorded(const char* path, int flags, mode_t mode) {
    const std::lock_guard lock{recorder().mutex};
    if ((flags & O_ACCMODE) != O_RDONLY && refused('o', path)) {
        return -1;
    }
    const struct stat before = infoOf(path);
    const int fd = REAL(open)(path, flags, mode);
    if (fd >= 0) {
        pathOf(fd) = path;
        if (before.st_ino == 0) {
            record(Op::kCreate, path, infoOf(path).st_ino);
        } else if ((flags & O_TRUNC) != 0 && before.st_size > 0) {
            record(Op::kTruncate, path, before.st_ino);
        }
    }
    return fd;
}

// A write at `at`, made by `real`; of a file that is not watched it may block.
template <typename Real>
ssize_t writeRecorded(int fd, const void* bytes, off_t at, Real real) {
    std::unique_lock lock{recorder().mutex};
    const std::string path = pathOf(fd);
    if (path.empty()) {
        lock.unlock();
        return real();
    }
    const ssize_t written = refused('w', path) ? -1 : real();
    if (written > 0) {
        record(Op::kWrite, path, infoOf(fd).st_ino, at,
               {static_cast<const char*>(bytes), static_cast<std::size_t>(written)});
    }
    return written;
}

int flush(int fd, Op op) {
    const std::lock_guard lock{recorder().mutex};
    const std::string& path = pathOf(fd);
    if (path.empty()) {
        return 0;
    }
    if (refused('s', path)) {
        return -1;
    }
    const struct stat info = infoOf(fd);
    record(S_ISDIR(info.st_mode) ? Op::kFlushNames : op, path, info.st_ino);
    return 0;
}

// A change of names: made by `change`, then recorded.
template <typename Change>
int changeNames(Op op, const char* path, const char* from, Change change) {
    if (!watched(path)) {
        return change();
    }
    const std::lock_guard lock{recorder().mutex};
    const struct stat info = infoOf(from == nullptr ? path : from);
    if (refused('d', path)) {
        return -1;
    }
    const int result = change();
    if (result == 0) {
        record(op, path, info.st_ino, 0, from == nullptr ? "" : from);
    }
    return result;
}

std::int64_t nanoseconds(const timespec& time) {
    return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

timespec timespecOf(std::int64_t time) {
    return {time / 1'000'000'000, time % 1'000'000'000};
}

std::int64_t realTime() {
    timespec now{};
    syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now);
    return nanoseconds(now);
}

std::int64_t began() {
    static const std::int64_t at = realTime();
    return at;
}

} // namespace

// The names with "64" are the same functions: off_t has 64 bits.
static_assert(sizeof(off_t) == 8);
#define SAME_AS(name) __attribute__((alias(name)))

extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    return watched(path) ? openRecorded(path, flags, mode) : REAL(open)(path, flags, mode);
}
int open64(const char* path, int flags, ...) SAME_AS("open");

int close(int fd) {
    const std::lock_guard lock{recorder().mutex};
    pathOf(fd).clear();
    return REAL(close)(fd);
}

ssize_t pwrite(int fd, const void* bytes, size_t size, off_t at) {
    return writeRecorded(fd, bytes, at, [&] { return REAL(pwrite)(fd, bytes, size, at); });
}
ssize_t pwrite64(int fd, const void* bytes, size_t size, off64_t at) SAME_AS("pwrite");
ssize_t write(int fd, const void* bytes, size_t size) {
    return writeRecorded(fd, bytes, lseek(fd, 0, SEEK_CUR),
                         [&] { return REAL(write)(fd, bytes, size); });
}

int ftruncate(int fd, off_t length) noexcept {
    const std::lock_guard lock{recorder().mutex};
    if (!pathOf(fd).empty() && refused('t', pathOf(fd))) {
        return -1;
    }
    const int result = REAL(ftruncate)(fd, length);
    if (result == 0 && !pathOf(fd).empty()) {
        record(Op::kTruncate, pathOf(fd), infoOf(fd).st_ino, length);
    }
    return result;
}
int ftruncate64(int fd, off64_t length) noexcept SAME_AS("ftruncate");

int unlink(const char* path) noexcept {
    return changeNames(Op::kUnlink, path, nullptr, [&] { return REAL(unlink)(path); });
}
int rename(const char* from, const char* to) noexcept {
    return changeNames(Op::kRename, to, from, [&] { return REAL(rename)(from, to); });
}
int link(const char* from, const char* to) noexcept {
    return changeNames(Op::kLink, to, from, [&] { return REAL(link)(from, to); });
}

int fsync(int fd) {
    return flush(fd, Op::kFlush);
}
int fdatasync(int fd) {
    return flush(fd, Op::kFlushData);
}
void sync() noexcept {
    const std::lock_guard lock{recorder().mutex};
    record(Op::kSync, "");
}
int syncfs(int /*fd*/) noexcept {
    sync();
    return 0;
}

int clock_gettime(clockid_t clock, timespec* time) noexcept {
    if (clock != CLOCK_MONOTONIC) {
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    }
    *time = timespecOf(began() + (realTime() - began()) * powercut::kHaste);
    return 0;
}
int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* until) {
    const timespec real =
        clock == CLOCK_MONOTONIC
            ? timespecOf(began() + (nanoseconds(*until) - began()) / powercut::kHaste)
            : *until;
    return REAL(pthread_cond_clockwait)(condition, mutex, clock, &real);
}

} // extern "C"
