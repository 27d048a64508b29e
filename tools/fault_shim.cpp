// A library to preload (LD_PRELOAD) that stands between a program and its storage.
//
// It numbers, from 1, the calls of the C library that touch a watched file: whatever lies below
// /mnt, the XML files in /etc and SQLite's temporary files. The environment says what happens:
//
//   KELCONF_FAULT_TRACE  file to which each watched call adds a line "NUMBER KIND PATH"
//   KELCONF_FAULT        "ACTION NUMBER ERRNO CLASS", one of
//       fail         call NUMBER fails with ERRNO and is not made (close is made and fails)
//       fail-on      so does every call of the class from NUMBER on
//       short        call NUMBER, a read or a write, does half of its bytes
//       short-full   the same, and from then on whatever needs space fails with ERRNO
//       kill-after   SIGKILL when call NUMBER is done
//       CLASS limits fail-on: "all", "modify", "space", or a KIND
//   KELCONF_FAULT_UNTIL  a path: once there is such a file, nothing fails any more
//   KELCONF_FAULT_STUCK  a path: whatever would change this file fails with EROFS
//
// Kinds: stat, open (for reading), openw (for writing), create (a file that was not there),
// read, write, truncate, remove, mode, sync, lock, close. Of any number of threads, one call at a
// time; what another preloaded library calls below one of them is part of it.

#include "interposed.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

namespace {

struct Plan {
    char action[16] = "";
    long number = 0;
    int error = 0;
    char call_class[16] = "all";
    const char* stuck = std::getenv("KELCONF_FAULT_STUCK");
    const char* until = std::getenv("KELCONF_FAULT_UNTIL");
    int trace = -1;
};

const Plan& plan() {
    static const Plan read_once = [] {
        Plan made;
        const char* text = std::getenv("KELCONF_FAULT");
        if (text != nullptr && std::sscanf(text, "%15s %ld %d %15s", made.action, &made.number,
                                           &made.error, made.call_class) < 2) {
            std::abort();
        }
        if (const char* path = std::getenv("KELCONF_FAULT_TRACE")) {
            made.trace = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path,
                                                  O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        }
        return made;
    }();
    return read_once;
}

// A watched path as it is, of any other nothing.
std::string_view watched(const char* path) {
    const std::string_view name = path == nullptr ? "" : path;
    const bool is_watched = name == "/mnt" || name.starts_with("/mnt/") ||
                            (name.starts_with("/etc/") && name.ends_with(".xml")) ||
                            name.find("/etilqs_") != std::string_view::npos;
    return is_watched ? name : "";
}

// The path of an open watched file, else empty. The process ends without freeing them: the
// program may still close files while its statics are being destroyed.
std::string& pathOf(int fd) {
    static auto* paths = new std::array<std::string, 1024>;
    static std::string none;
    return fd < 0 ? none : paths->at(static_cast<std::size_t>(fd));
}

bool needsSpace(std::string_view kind) {
    return kind == "create" || kind == "write" || kind == "truncate";
}

bool modifies(std::string_view kind) {
    return needsSpace(kind) || kind == "openw" || kind == "remove";
}

bool inClass(std::string_view kind, std::string_view wanted) {
    return wanted == "all" || wanted == kind || (wanted == "modify" && modifies(kind)) ||
           (wanted == "space" && needsSpace(kind));
}

// The error that call `number` is to fail with, or 0.
int errorFor(long number, std::string_view kind, std::string_view path) {
    const std::string_view action = plan().action;
    if (plan().stuck != nullptr && plan().stuck == path && modifies(kind)) {
        return EROFS;
    }
    const bool failing =
        (action == "fail" && number == plan().number) ||
        (action == "fail-on" && number >= plan().number && inClass(kind, plan().call_class)) ||
        (action == "short-full" && number > plan().number && needsSpace(kind));
    const bool over = failing && plan().until != nullptr &&
                      syscall(SYS_faccessat, AT_FDCWD, plan().until, F_OK) == 0;
    return failing && !over ? plan().error : 0;
}

// Its number.
long count(const char* kind, std::string_view path) {
    static long number = 0;
    ++number;
    if (plan().trace >= 0) {
        const std::string line =
            std::to_string(number) + " " + kind + " " + std::string(path) + "\n";
        syscall(SYS_write, plan().trace, line.data(), line.size());
    }
    return number;
}

// At its end the thread is outside of a call again.
struct Outside {
    bool& inside;
    explicit Outside(bool& flag) : inside(flag) {}
    Outside(const Outside&) = delete;
    Outside& operator=(const Outside&) = delete;
    ~Outside() { inside = false; }
};

// Passes a call whose path is empty through; does to any other what is planned. `real` is given
// the bytes to transfer, of a read or a write.
template <typename Real>
auto guard(const char* kind, std::string_view path, Real real, std::size_t size = 0)
    -> decltype(real(size)) {
    static std::mutex mutex;
    static thread_local bool inside = false;
    if (path.empty() || inside) {
        return real(size);
    }
    const std::lock_guard lock{mutex};
    inside = true;
    const Outside outside{inside};
    const long number = count(kind, path);
    if (const int error = errorFor(number, kind, path); error != 0) {
        errno = error;
        return -1;
    }
    const std::string_view action = plan().action;
    const bool here = number == plan().number;
    const auto result = real(here && action.starts_with("short") ? size / 2 : size);
    if (here && action == "kill-after") {
        syscall(SYS_kill, getpid(), SIGKILL);
    }
    return result;
}

const char* kindOfOpen(const char* path, int flags) {
    if ((flags & (O_ACCMODE | O_CREAT)) == O_RDONLY) {
        return "open";
    }
    const bool there = syscall(SYS_faccessat, AT_FDCWD, path, F_OK) == 0;
    return (flags & O_CREAT) != 0 && !there ? "create" : "openw";
}

} // namespace

// A function that takes a path first, or a descriptor: its name, the kind of its calls, and its
// parameters and arguments after the first.
#define ON_PATH(name, kind, parameters, ...)                                                       \
    int name parameters noexcept {                                                                 \
        return guard(kind, watched(path), [&](auto) { return REAL(name)(__VA_ARGS__); });          \
    }
#define ON_FILE(name, kind, parameters, ...)                                                       \
    int name parameters noexcept {                                                                 \
        return guard(kind, pathOf(fd), [&](auto) { return REAL(name)(__VA_ARGS__); });             \
    }

// The same that transfers `size` bytes, of which `part` are wanted.
#define ON_BYTES(name, kind, parameters, ...)                                                      \
    ssize_t name parameters {                                                                      \
        const auto transfer = [&](size_t part) { return REAL(name)(__VA_ARGS__); };                \
        return guard(kind, pathOf(fd), transfer, size);                                            \
    }

extern "C" {

int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    const std::string_view name = watched(path);
    const int fd = guard(name.empty() ? "" : kindOfOpen(path, flags), name,
                         [&](auto) { return REAL(open)(path, flags, mode); });
    if (fd >= 0 && !name.empty()) {
        pathOf(fd) = name;
    }
    return fd;
}
int open64(const char* path, int flags, ...) SAME_AS("open");

int close(int fd) {
    const std::string name = std::exchange(pathOf(fd), "");
    const int closed = REAL(close)(fd); // whatever the verdict: the descriptor is gone
    return guard("close", name, [&](auto) { return closed; });
}

ON_BYTES(read, "read", (int fd, void* buffer, size_t size), fd, buffer, part)
ON_BYTES(pread, "read", (int fd, void* buffer, size_t size, off_t at), fd, buffer, part, at)
ssize_t pread64(int fd, void* buffer, size_t size, off64_t at) SAME_AS("pread");
ON_BYTES(write, "write", (int fd, const void* buffer, size_t size), fd, buffer, part)
ON_BYTES(pwrite, "write", (int fd, const void* buffer, size_t size, off_t at), fd, buffer, part, at)
ssize_t pwrite64(int fd, const void* buffer, size_t size, off64_t at) SAME_AS("pwrite");

off_t lseek(int fd, off_t offset, int whence) noexcept {
    return guard("read", pathOf(fd), [&](auto) { return REAL(lseek)(fd, offset, whence); });
}
off64_t lseek64(int fd, off64_t offset, int whence) noexcept SAME_AS("lseek");

// Syncs are made in name only: whoever looks at the files after the end of the process sees
// what was written in any case, and thousands of runs need not wait for a disk.
int fsync(int fd) {
    return guard("sync", pathOf(fd), [](auto) { return 0; });
}
int fdatasync(int fd) SAME_AS("fsync");

ON_PATH(truncate, "truncate", (const char* path, off_t length), path, length)
ON_FILE(ftruncate, "truncate", (int fd, off_t length), fd, length)
int ftruncate64(int fd, off64_t length) noexcept SAME_AS("ftruncate");
ON_PATH(unlink, "remove", (const char* path), path)
ON_PATH(rename, "remove", (const char* from, const char* path), from, path)
ON_PATH(link, "create", (const char* from, const char* path), from, path)
ON_PATH(chmod, "mode", (const char* path, mode_t mode), path, mode)
ON_PATH(access, "stat", (const char* path, int mode), path, mode)
ON_PATH(stat, "stat", (const char* path, struct stat* info), path, info)
int stat64(const char* path, struct stat64* info) noexcept SAME_AS("stat");
ON_PATH(lstat, "stat", (const char* path, struct stat* info), path, info)
int lstat64(const char* path, struct stat64* info) noexcept SAME_AS("lstat");
ON_FILE(fstat, "stat", (int fd, struct stat* info), fd, info)
int fstat64(int fd, struct stat64* info) noexcept SAME_AS("fstat");

// The only uses on watched files are SQLite's locks; every argument fits a pointer.
int fcntl(int fd, int command, ...) {
    va_list arguments;
    va_start(arguments, command);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    return guard("lock", pathOf(fd), [&](auto) { return REAL(fcntl)(fd, command, argument); });
}
int fcntl64(int fd, int command, ...) SAME_AS("fcntl");

} // extern "C"
