#include "files/stored_file.h"

#include "base/fd.h"
#include "paths.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

namespace kelconf {

namespace {

constexpr int kBase = O_PATH | O_DIRECTORY | O_CLOEXEC; // may be a link, as a device is laid out
constexpr int kDirectory = kBase | O_NOFOLLOW;          // inside it nobody's link is followed

// Takes the first segment off a path; empty ones are passed over.
std::string nextSegment(std::string_view& path) {
    path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
    const std::size_t end = std::min(path.find('/'), path.size());
    std::string segment{path.substr(0, end)};
    path.remove_prefix(end);
    return segment;
}

} // namespace

bool namesStoredFile(const char* value) {
    return value != nullptr && std::strstr(value, paths::kFileStorage) != nullptr;
}

void deleteStoredFile(const char* value) {
    std::string_view path{value};
    const std::string_view storage{paths::kFileStorage};
    if (!path.starts_with(storage)) {
        return;
    }
    path.remove_prefix(storage.size());
    Fd directory{open(paths::kFileStorage, kBase)};
    std::string segment = nextSegment(path);
    while (directory && !path.empty() && segment != "..") {
        directory = Fd{openat(directory.get(), segment.c_str(), kDirectory)};
        segment = nextSegment(path);
    }
    if (directory && !segment.empty() && segment != "..") {
        unlinkat(directory.get(), segment.c_str(), 0);
    }
}

} // namespace kelconf
