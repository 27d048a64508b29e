// Owner of a file descriptor: move-only, closed on destruction, -1 is empty. And reading and
// writing.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <utility>

namespace kelconf {

// Else a file that was changed after 2038 could not be looked at: stat(2) fails.
static_assert(sizeof(time_t) >= 8 && sizeof(off_t) >= 8,
              "define _TIME_BITS=64 and _FILE_OFFSET_BITS=64, as CMakeLists.txt does");

class Fd {
  public:
    Fd() = default;
    explicit Fd(int fd) noexcept : fd_(fd) {}
    Fd(Fd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) {
            close();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    // errno survives: the caller wants to know why the work before failed.
    ~Fd() {
        const int error = errno;
        close();
        errno = error;
    }

    explicit operator bool() const noexcept { return fd_ >= 0; }
    [[nodiscard]] int get() const noexcept { return fd_; }
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }

    // Result of close(2), 0 when empty. The descriptor is gone either way.
    int close() noexcept { return fd_ < 0 ? 0 : ::close(std::exchange(fd_, -1)); }

  private:
    int fd_ = -1;
};

// As read(2), but taken up again when a signal comes before the first byte.
inline ssize_t readSome(int fd, void* to, std::size_t size) noexcept {
    ssize_t got = 0;
    do {
        got = ::read(fd, to, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

// Writes all. False, with errno set, when the descriptor takes no more.
inline bool writeAll(int fd, const void* from, std::size_t size) noexcept {
    const auto* bytes = static_cast<const char*>(from);
    while (size > 0) {
        const ssize_t written = ::write(fd, bytes, size);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        const std::size_t done = written < 0 ? 0 : static_cast<std::size_t>(written);
        bytes += done;
        size -= done;
    }
    return true;
}

} // namespace kelconf
