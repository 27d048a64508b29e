#include "tree/tree_file.h"

#include "base/fd.h"
#include "files/storage_fault.h"

#include <fcntl.h>
#include <libxml/parser.h>
#include <libxml/xmlIO.h>

#include <cerrno>

namespace kelconf {

namespace {

// The one file that libxml2 may open in this thread, and what came of it.
struct Reading {
    const char* path = nullptr; // null once opened: whatever is asked for next is refused
    Fd fd;
    int error = 0;
};

thread_local Reading reading;

int matchTree(const char* /*name*/) {
    return 1; // every name ends here, so that no other handler of libxml2 opens a file
}

void* openTree(const char* /*name*/) {
    if (reading.path == nullptr) {
        return nullptr;
    }
    // A pipe that nobody writes to is not waited for.
    reading.fd = Fd{open(reading.path, O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    reading.path = nullptr;
    if (!reading.fd) {
        reading.error = errno;
        return nullptr;
    }
    return &reading;
}

int readTree(void* context, char* buffer, int length) {
    auto& state = *static_cast<Reading*>(context);
    const ssize_t got = readSome(state.fd.get(), buffer, static_cast<std::size_t>(length));
    if (got < 0) {
        state.error = errno;
    }
    return static_cast<int>(got);
}

int closeTree(void* context) {
    static_cast<Reading*>(context)->fd.close();
    return 0;
}

// Registered once for the process. The newest handler is asked first, and ours takes all.
void takeOverInput() {
    static const int registered =
        (xmlInitParser(), xmlRegisterInputCallbacks(matchTree, openTree, readTree, closeTree));
    static_cast<void>(registered);
}

} // namespace

XmlDoc readTreeFile(const char* path, int* error) {
    takeOverInput();
    reading = Reading{path, Fd{}, 0};
    XmlDoc document{xmlReadFile(path, nullptr, XML_PARSE_BIG_LINES)};
    const int failure = reading.error;
    reading = Reading{};
    if (isStorageError(failure)) {
        noteStorageFault();
    }
    if (error != nullptr) {
        *error = failure;
    }
    return failure == 0 ? std::move(document) : nullptr;
}

} // namespace kelconf
