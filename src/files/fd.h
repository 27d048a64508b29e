// Owner of a file descriptor: move-only, closed on destruction, -1 is empty.
#pragma once

#include <unistd.h>

#include <utility>

namespace kelconf {

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
    ~Fd() { close(); }

    explicit operator bool() const noexcept { return fd_ >= 0; }
    [[nodiscard]] int get() const noexcept { return fd_; }
    [[nodiscard]] int release() noexcept { return std::exchange(fd_, -1); }

    // Result of close(2), 0 when empty. The descriptor is gone either way.
    int close() noexcept { return fd_ < 0 ? 0 : ::close(std::exchange(fd_, -1)); }

  private:
    int fd_ = -1;
};

} // namespace kelconf
