// A library to preload (LD_PRELOAD) that stands between a program and its storage.
//
// It numbers, from 1, the calls of the C library that touch a watched file: whatever lies below
// /mnt, the XML files in /etc and SQLite's temporary files. The environment says what happens:
//
//   KELCONF_FAULT_TRACE  file to which each watched call adds a line "NUMBER KIND CALL PATH"
//   KELCONF_FAULT        "ACTION NUMBER ERRNO CLASS", one of
//       fail         call NUMBER fails with ERRNO and is not made (close is made and fails)
//       fail-on      so does every call of the class from NUMBER on
//       short        call NUMBER, a read or a write, does half of its bytes
//       short-full   the same, and from then on whatever needs space fails with ERRNO
//       kill-before  SIGKILL in place of call NUMBER
//       kill-after   SIGKILL when call NUMBER is done
//       room         NUMBER bytes may be written in all; what comes then fails with ERRNO
//       CLASS limits fail-on: "all", "modify", "space", "sync", or a KIND
//   KELCONF_FAULT_STUCK  a path: whatever would change this file fails with EROFS
//
// Kinds: stat, open (for reading), openw (for writing), create (a file that was not there),
// read, write, truncate, remove, sync, lock, close, owner. For one thread, as kelconf-init is.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utime.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace {

constexpr std::size_t kMaxFd = 1024;

struct Plan {
    char action[16] = "";
    long number = 0;
    int error = 0;
    char call_class[16] = "all";
    std::string stuck;
    int trace = -1;
};

// The path of each open watched file, by descriptor. The process ends without freeing it: the
// program may still close files while its statics are being destroyed.
std::array<std::string, kMaxFd>& openPaths() {
    static auto* paths = new std::array<std::string, kMaxFd>;
    return *paths;
}

const Plan& plan() {
    static const Plan* const read_once = [] {
        auto* made = new Plan;
        if (const char* text = std::getenv("KELCONF_FAULT")) {
            if (std::sscanf(text, "%15s %ld %d %15s", made->action, &made->number, &made->error,
                            made->call_class) < 2) {
                std::abort();
            }
        }
        if (const char* path = std::getenv("KELCONF_FAULT_STUCK")) {
            made->stuck = path;
        }
        if (const char* path = std::getenv("KELCONF_FAULT_TRACE")) {
            made->trace = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path,
                                                   O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        }
        return made;
    }();
    return *read_once;
}

bool watchedPath(const char* path) {
    const std::string_view name = path == nullptr ? "" : path;
    return name == "/mnt" || name.starts_with("/mnt/") ||
           (name.starts_with("/etc/") && name.ends_with(".xml")) ||
           name.find("/etilqs_") != std::string_view::npos;
}

const char* pathOf(int fd) {
    const bool known = fd >= 0 && static_cast<std::size_t>(fd) < kMaxFd;
    return known ? openPaths()[static_cast<std::size_t>(fd)].c_str() : "";
}

void remember(int fd, const char* path) {
    if (fd >= 0 && static_cast<std::size_t>(fd) < kMaxFd) {
        openPaths()[static_cast<std::size_t>(fd)] = path;
    } else if (fd >= 0) {
        std::abort();
    }
}

[[noreturn]] void die() {
    syscall(SYS_kill, getpid(), SIGKILL);
    std::abort();
}

bool isOneOf(std::string_view kind, std::initializer_list<std::string_view> kinds) {
    for (const std::string_view one : kinds) {
        if (kind == one) {
            return true;
        }
    }
    return false;
}

bool needsSpace(std::string_view kind) {
    return isOneOf(kind, {"create", "write", "truncate"});
}

bool modifies(std::string_view kind) {
    return needsSpace(kind) || isOneOf(kind, {"openw", "remove", "owner"});
}

bool inClass(std::string_view kind, std::string_view wanted) {
    return wanted == "all" || wanted == kind || (wanted == "modify" && modifies(kind)) ||
           (wanted == "space" && needsSpace(kind));
}

struct Verdict {
    int error = 0; // fail with it
    bool half = false;
    bool kill_after = false;
};

Verdict planned(long number, const char* kind) {
    const std::string_view action = plan().action;
    const bool here = number == plan().number;
    if (here && action == "kill-before") {
        die();
    }
    Verdict verdict;
    verdict.kill_after = here && action == "kill-after";
    verdict.half = here && action.starts_with("short");
    const bool failing =
        (here && action == "fail") ||
        (action == "fail-on" && number >= plan().number && inClass(kind, plan().call_class)) ||
        (action == "short-full" && number > plan().number && needsSpace(kind));
    verdict.error = failing ? plan().error : 0;
    return verdict;
}

void trace(long number, const char* kind, const char* call, const char* path) {
    if (plan().trace >= 0) {
        char line[512];
        const int length =
            std::snprintf(line, sizeof line, "%ld %s %s %s\n", number, kind, call, path);
        syscall(SYS_write, plan().trace, line, static_cast<std::size_t>(length));
    }
}

Verdict judge(const char* kind, const char* call, const char* path) {
    static long calls = 0;
    trace(++calls, kind, call, path);
    Verdict verdict = planned(calls, kind);
    if (!plan().stuck.empty() && plan().stuck == path && modifies(kind)) {
        verdict.error = EROFS;
    }
    return verdict;
}

// Passes a call that is not watched through; otherwise does to it what is planned.
template <typename Real>
auto guard(bool watched, const char* kind, const char* call, const char* path, Real real)
    -> decltype(real()) {
    if (!watched) {
        return real();
    }
    const Verdict verdict = judge(kind, call, path);
    if (verdict.error != 0) {
        errno = verdict.error;
        return -1;
    }
    const auto result = real();
    if (verdict.kill_after) {
        die();
    }
    return result;
}

template <typename Real>
auto guardPath(const char* kind, const char* call, const char* path, Real real) {
    return guard(watchedPath(path), kind, call, path, real);
}

template <typename Real>
auto guardFd(const char* kind, const char* call, int fd, Real real) {
    const char* path = pathOf(fd);
    return guard(*path != '\0', kind, call, path, real);
}

// What is left of the room for writing, as far as `wanted` needs it.
std::size_t takeRoom(std::size_t wanted) {
    static auto left = static_cast<std::size_t>(plan().number);
    const std::size_t granted = wanted < left ? wanted : left;
    left -= granted;
    return granted;
}

// A read or write: `real` is given the number of bytes to do.
template <typename Real>
ssize_t guardTransfer(const char* kind, const char* call, int fd, std::size_t size, Real real) {
    const char* path = pathOf(fd);
    if (*path == '\0') {
        return real(size);
    }
    const Verdict verdict = judge(kind, call, path);
    int error = verdict.error;
    if (error == 0 && std::strcmp(kind, "write") == 0 && std::strcmp(plan().action, "room") == 0) {
        size = takeRoom(size);
        error = size == 0 ? plan().error : 0;
    }
    if (error != 0) {
        errno = error;
        return -1;
    }
    const ssize_t result = real(verdict.half ? size / 2 : size);
    if (verdict.kill_after) {
        die();
    }
    return result;
}

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
        static const auto real = next(&::name, #name);                                             \
        return real;                                                                               \
    }())

const char* kindOfOpen(const char* path, int flags) {
    if ((flags & O_ACCMODE) == O_RDONLY && (flags & O_CREAT) == 0) {
        return "open";
    }
    const bool there = syscall(SYS_faccessat, AT_FDCWD, path, F_OK) == 0;
    return (flags & O_CREAT) != 0 && !there ? "create" : "openw";
}

mode_t modeOf(int flags, va_list arguments) {
    return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

} // namespace

// The names with "64" are the same functions: off_t has 64 bits.
static_assert(sizeof(off_t) == 8);

extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = modeOf(flags, arguments);
    va_end(arguments);
    const bool watched = watchedPath(path);
    const int fd = guard(watched, watched ? kindOfOpen(path, flags) : "", "openat", path,
                         [&] { return REAL(open)(path, flags, mode); });
    if (watched) {
        remember(fd, path);
    }
    return fd;
}
int open64(const char* path, int flags, ...) __attribute__((alias("open")));

int close(int fd) {
    const char* path = pathOf(fd);
    if (*path == '\0') {
        return REAL(close)(fd);
    }
    const std::string name = path;
    openPaths()[static_cast<std::size_t>(fd)].clear();
    const int closed = REAL(close)(fd); // whatever the verdict: the descriptor is gone
    return guard(true, "close", "close", name.c_str(), [&] { return closed; });
}

ssize_t read(int fd, void* buffer, size_t size) {
    return guardTransfer("read", "read", fd, size,
                         [&](size_t part) { return REAL(read)(fd, buffer, part); });
}
ssize_t __read_chk(int fd, void* buffer, size_t size, size_t /*room*/) {
    return read(fd, buffer, size);
}

ssize_t pread(int fd, void* buffer, size_t size, off_t offset) {
    return guardTransfer("read", "pread64", fd, size,
                         [&](size_t part) { return REAL(pread)(fd, buffer, part, offset); });
}
ssize_t pread64(int fd, void* buffer, size_t size, off64_t offset) __attribute__((alias("pread")));

ssize_t write(int fd, const void* buffer, size_t size) {
    return guardTransfer("write", "write", fd, size,
                         [&](size_t part) { return REAL(write)(fd, buffer, part); });
}

ssize_t pwrite(int fd, const void* buffer, size_t size, off_t offset) {
    return guardTransfer("write", "pwrite64", fd, size,
                         [&](size_t part) { return REAL(pwrite)(fd, buffer, part, offset); });
}
ssize_t pwrite64(int fd, const void* buffer, size_t size, off64_t offset)
    __attribute__((alias("pwrite")));

off_t lseek(int fd, off_t offset, int whence) noexcept {
    return guardFd("read", "lseek", fd, [&] { return REAL(lseek)(fd, offset, whence); });
}
off64_t lseek64(int fd, off64_t offset, int whence) noexcept __attribute__((alias("lseek")));

int ftruncate(int fd, off_t length) noexcept {
    return guardFd("truncate", "ftruncate", fd, [&] { return REAL(ftruncate)(fd, length); });
}
int ftruncate64(int fd, off64_t length) noexcept __attribute__((alias("ftruncate")));

int truncate(const char* path, off_t length) noexcept {
    return guardPath("truncate", "truncate", path, [&] { return REAL(truncate)(path, length); });
}
int truncate64(const char* path, off64_t length) noexcept __attribute__((alias("truncate")));

// Syncs are made in name only: whoever looks at the files after the end of the process sees
// what was written in any case, and thousands of runs need not wait for a disk.
int fsync(int fd) {
    return guardFd("sync", "fsync", fd, [] { return 0; });
}

int fdatasync(int fd) {
    return guardFd("sync", "fdatasync", fd, [] { return 0; });
}

int unlink(const char* path) noexcept {
    return guardPath("remove", "unlink", path, [&] { return REAL(unlink)(path); });
}

int rename(const char* from, const char* to) noexcept {
    return guardPath("remove", "rename", to, [&] { return REAL(rename)(from, to); });
}

int mkdir(const char* path, mode_t mode) noexcept {
    return guardPath("create", "mkdir", path, [&] { return REAL(mkdir)(path, mode); });
}

int access(const char* path, int mode) noexcept {
    return guardPath("stat", "access", path, [&] { return REAL(access)(path, mode); });
}

int stat(const char* path, struct stat* info) noexcept {
    return guardPath("stat", "newfstatat", path, [&] { return REAL(stat)(path, info); });
}
int stat64(const char* path, struct stat64* info) noexcept __attribute__((alias("stat")));

int lstat(const char* path, struct stat* info) noexcept {
    return guardPath("stat", "newfstatat", path, [&] { return REAL(lstat)(path, info); });
}
int lstat64(const char* path, struct stat64* info) noexcept __attribute__((alias("lstat")));

int fstat(int fd, struct stat* info) noexcept {
    return guardFd("stat", "newfstatat", fd, [&] { return REAL(fstat)(fd, info); });
}
int fstat64(int fd, struct stat64* info) noexcept __attribute__((alias("fstat")));

int fchown(int fd, uid_t owner, gid_t group) noexcept {
    return guardFd("owner", "fchown", fd, [&] { return REAL(fchown)(fd, owner, group); });
}

int fchmod(int fd, mode_t mode) noexcept {
    return guardFd("owner", "fchmod", fd, [&] { return REAL(fchmod)(fd, mode); });
}

// The only uses on watched files are SQLite's locks; every argument fits a pointer.
int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return guardFd("lock", "fcntl", fd, [&] { return REAL(fcntl)(fd, command, argument); });
}
int fcntl64(int fd, int command, ...) __attribute__((alias("fcntl")));

} // extern "C"
