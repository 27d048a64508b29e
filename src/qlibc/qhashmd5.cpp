#include "base/fd.h"
#include "qlibc/use_qlibc.h"

#include <fcntl.h>
#include <md5.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <new>

namespace {

constexpr std::size_t kReadBytes = 256UL * 1024;

// `wanted`: bytes to digest; 0: all up to the end.
bool digest(int fd, std::size_t wanted, MD5_CTX& md5) {
    const std::unique_ptr<std::uint8_t[]> buffer{new (std::nothrow) std::uint8_t[kReadBytes]};
    if (!buffer) {
        errno = ENOMEM;
        return false;
    }
    std::size_t done = 0;
    while (wanted == 0 || done < wanted) {
        const std::size_t left = wanted == 0 ? kReadBytes : wanted - done;
        const ssize_t got =
            kelconf::readSome(fd, buffer.get(), left < kReadBytes ? left : kReadBytes);
        if (got < 0) {
            return false;
        }
        if (got == 0) {
            break;
        }
        MD5Update(&md5, buffer.get(), static_cast<std::size_t>(got));
        done += static_cast<std::size_t>(got);
    }
    if (done < wanted) {
        errno = EINVAL;
        return false;
    }
    return true;
}

} // namespace

bool qhashmd5_file(const char* filepath, off_t offset, ssize_t nbytes, void* retbuf) {
    if (filepath == nullptr || offset < 0 || nbytes < 0 || retbuf == nullptr) {
        errno = EINVAL;
        return false;
    }
    const kelconf::Fd file{::open(filepath, O_RDONLY | O_CLOEXEC)};
    if (!file || (offset > 0 && ::lseek(file.get(), offset, SEEK_SET) < 0)) {
        return false;
    }
    MD5_CTX md5;
    MD5Init(&md5);
    if (!digest(file.get(), static_cast<std::size_t>(nbytes), md5)) {
        return false;
    }
    MD5Final(static_cast<std::uint8_t*>(retbuf), &md5);
    return true;
}
