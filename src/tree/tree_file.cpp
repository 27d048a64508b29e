#include "tree/tree_file.h"

#include "base/fd.h"
#include "files/storage_fault.h"

#include <fcntl.h>
#include <libxml/parser.h>
#include <libxml/xmlIO.h>

#include <cerrno>
#include <limits>

namespace kelconf {

namespace {

// The one file that libxml2 may open in this thread, and what came of it.
struct Reading {
    bool running = false;       // while it does, every name that libxml2 asks for ends here
    const char* path = nullptr; // null once opened: whatever is asked for next is refused
    Fd fd;
    int error = 0;
};

thread_local Reading reading;

// An opening that fails would only send libxml2 to its next handler.
Fd refused;

int matchTree(const char* /*name*/) {
    return reading.running ? 1 : 0;
}

void* openTree(const char* /*name*/) {
    if (reading.path == nullptr) {
        return &refused;
    }
    // A pipe that nobody writes to is not waited for.
    reading.fd = Fd{open(reading.path, O_RDONLY | O_NONBLOCK | O_CLOEXEC)};
    reading.path = nullptr;
    if (!reading.fd) {
        reading.error = errno;
        return nullptr;
    }
    return &reading.fd;
}

int readTree(void* context, char* buffer, int length) {
    const Fd& file = *static_cast<Fd*>(context);
    const ssize_t got = readSome(file.get(), buffer, static_cast<std::size_t>(length));
    if (got < 0 && file) {
        reading.error = errno;
    }
    return static_cast<int>(got);
}

int closeTree(void* context) {
    static_cast<Fd*>(context)->close();
    return 0;
}

// Registered once for the process. The newest handler is asked first.
void takeOverInput() {
    static const int registered =
        (xmlInitParser(), xmlRegisterInputCallbacks(matchTree, openTree, readTree, closeTree));
    static_cast<void>(registered);
}

} // namespace

XmlDoc readTreeFile(const char* path, int* error) {
    takeOverInput();
    reading = Reading{true, path, Fd{}, 0};
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

XmlDoc readTreeText(std::string_view text) {
    takeOverInput();
    if (text.size() > std::numeric_limits<int>::max()) {
        return nullptr;
    }
    reading = Reading{true, nullptr, Fd{}, 0};
    XmlDoc document{xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                                  XML_PARSE_BIG_LINES)};
    reading = Reading{};
    return document;
}

} // namespace kelconf
