#include "cli/output/output.h"

#include "base/fd.h"
#include "cli/output/shown_text.h"
#include "paths.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace kelconf::cli {

namespace {

constexpr std::size_t kGathered = std::size_t{64} * 1024;

struct Standard {
    std::string gathered; // not written yet
    int failure = 0;      // errno of the first write that failed
    bool quiet = false;
    std::vector<std::string> said;
};

Standard& standard() {
    static Standard output;
    return output;
}

// 0, or errno.
int put(int descriptor, std::string_view bytes) {
    return writeAll(descriptor, bytes.data(), bytes.size()) ? 0 : errno;
}

} // namespace

void guardStandardDescriptors() {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) != -1) {
            continue;
        }
        // The wrong direction: reading and writing go on failing as on a closed one.
        const int flags = descriptor == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        if (open(paths::kNull, flags) != descriptor) {
            _exit(kBroken); // descriptors are given out from the lowest: this cannot be
        }
    }
}

void out(std::string_view bytes) {
    Standard& output = standard();
    if (output.gathered.capacity() == 0) {
        output.gathered.reserve(kGathered);
    }
    if (output.gathered.size() + bytes.size() > kGathered) {
        flushOutput();
    }
    if (bytes.size() > kGathered && output.failure == 0) {
        output.failure = put(STDOUT_FILENO, bytes);
        return;
    }
    if (output.failure == 0) {
        output.gathered.append(bytes);
    }
}

bool flushOutput() {
    Standard& output = standard();
    if (output.failure == 0) {
        output.failure = put(STDOUT_FILENO, output.gathered);
    }
    output.gathered.clear();
    return output.failure == 0;
}

int finishOutput(int status) {
    Standard& output = standard();
    const bool used = output.gathered.capacity() != 0;
    flushOutput();
    if (used && close(STDOUT_FILENO) != 0 && output.failure == 0) {
        output.failure = errno;
    }
    if (output.failure == 0) {
        return status;
    }
    complain(std::string{"cannot write standard output: "} + std::strerror(output.failure));
    return kBroken;
}

void beQuiet(bool quiet) {
    standard().quiet = quiet;
}

const std::vector<std::string>& said() {
    return standard().said;
}

void forgetSaid() {
    standard().said.clear();
}

void complain(std::string_view text) {
    standard().said.emplace_back(text);
    if (standard().quiet) {
        return;
    }
    const std::string line = "kelctl: " + shownText(text) + "\n";
    put(STDERR_FILENO, line);
}

void toStandardError(std::string_view bytes) {
    put(STDERR_FILENO, bytes);
}

bool onTerminal(int descriptor) {
    return isatty(descriptor) == 1;
}

bool dumbTerminal() {
    const char* term = std::getenv("TERM");
    return term == nullptr || std::string_view{term} == "dumb";
}

} // namespace kelconf::cli
