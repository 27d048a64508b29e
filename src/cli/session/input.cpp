#include "cli/session/input.h"

#include "base/fd.h"
#include "cli/output/output.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace kelconf::cli {

namespace {

// 0, or errno; EFBIG for more than the limit.
int readAll(int descriptor, std::string& content) {
    std::array<char, std::size_t{64} * 1024> piece{};
    for (;;) {
        const ssize_t length = readSome(descriptor, piece.data(), piece.size());
        if (length <= 0) {
            return length < 0 ? errno : 0;
        }
        content.append(piece.data(), static_cast<std::size_t>(length));
        if (content.size() > kLongestInput) {
            return EFBIG;
        }
    }
}

} // namespace

bool readInput(const std::string& path, std::string& content) {
    const bool standard = path == "-";
    const Fd file{standard ? -1 : open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    const int failure =
        !standard && !file ? errno : readAll(standard ? STDIN_FILENO : file.get(), content);
    if (failure != 0) {
        complain((standard ? "standard input" : path) + ": " + std::strerror(failure));
    }
    return failure == 0;
}

} // namespace kelconf::cli
