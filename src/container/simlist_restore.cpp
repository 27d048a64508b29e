#include "base/fd.h"
#include "container/dump_format.h"
#include "container/simlist_dump.h"
#include "container/simlist_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace kelconf {

namespace {

// An element's memory grows as its bytes arrive: a wrong length prefix costs no more than this.
constexpr std::size_t kFirstRead = 64UL * 1024;
// Zero bytes behind the raw bytes of an element, so that a meter that looks at a text, or at one
// number, stays inside the memory whatever the file holds.
constexpr std::size_t kPadding = 8;

bool readExactly(int descriptor, std::uint8_t* to, std::size_t size) {
    while (size > 0) {
        const ssize_t got = readSome(descriptor, to, size);
        if (got <= 0) {
            return got < 0 ? false : fail(ENODATA);
        }
        to += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

// Hands out small pieces of large reads.
struct Reader {
    int descriptor;
    std::size_t at = 0;
    std::size_t filled = 0;
    std::array<std::uint8_t, kDumpBufferBytes> buffer;

    ssize_t fill(); // as readSome, when everything read before was handed out
    bool get(void* to, std::size_t size);
};

ssize_t Reader::fill() {
    const ssize_t got = readSome(descriptor, buffer.data(), buffer.size());
    at = 0;
    filled = got < 0 ? 0 : static_cast<std::size_t>(got);
    return got;
}

bool Reader::get(void* to, std::size_t size) {
    auto* next = static_cast<std::uint8_t*>(to);
    while (size > 0) {
        if (at == filled) {
            const ssize_t got = fill();
            if (got <= 0) {
                return got < 0 ? false : fail(ENODATA);
            }
        }
        const std::size_t part = std::min(size, filled - at);
        std::memcpy(next, &buffer[at], part);
        at += part;
        next += part;
        size -= part;
    }
    return true;
}

bool growTo(OwnedData& bytes, std::size_t size) {
    void* grown = std::realloc(bytes.get(), size);
    if (grown == nullptr) {
        return fail(ENOMEM);
    }
    static_cast<void>(bytes.release());
    bytes.reset(grown);
    return true;
}

bool readBytes(Reader& reader, std::size_t length, OwnedData& bytes) {
    std::size_t have = 0;
    do {
        const std::size_t room = std::min(length, std::max(kFirstRead, have * 2));
        if (!growTo(bytes, room + kPadding) ||
            !reader.get(static_cast<std::uint8_t*>(bytes.get()) + have, room - have)) {
            return false;
        }
        have = room;
    } while (have < length);
    std::memset(static_cast<std::uint8_t*>(bytes.get()) + length, 0, kPadding);
    return true;
}

// Turns the bytes of an element into the element.
bool unserialize(const simlist* list, std::uint32_t length, OwnedData& data) {
    if (list->unserializer != nullptr) {
        std::uint32_t consumed = length;
        OwnedData made{list->unserializer(data.get(), &consumed)};
        data = std::move(made);
        return (data != nullptr && consumed <= length) || fail(EPROTO);
    }
    // A user of the list relies on the size that its meter gives.
    return list->meter == nullptr || list->meter(data.get()) == length || fail(EPROTO);
}

bool restoreElement(simlist* list, Reader& reader, std::uint32_t length) {
    OwnedData data;
    if (!readBytes(reader, length, data) || !unserialize(list, length, data)) {
        return false;
    }
    if (simlistStoreAt(list, data.get(), list->count) != 1) {
        return fail(ENOMEM);
    }
    static_cast<void>(data.release());
    return true;
}

bool restoreContents(simlist* list, Reader& reader, const simlist_dump_info& info) {
    std::uint32_t left = info.content_length;
    for (std::uint32_t i = 0; i < info.count; ++i) {
        std::uint32_t length = info.element_size;
        if (length == 0 && !reader.get(&length, sizeof length)) {
            return false;
        }
        if (length > left) {
            return fail(EPROTO);
        }
        if (!restoreElement(list, reader, length)) {
            return false;
        }
        left -= length;
    }
    return left == 0 || fail(EPROTO);
}

bool checkTrailer(Reader& reader, const simlist_dump_info& info) {
    DumpTrailer trailer{};
    if (!reader.get(trailer.data(), trailer.size())) {
        return false;
    }
    if (getBigEndian<std::uint32_t>(trailer.data()) != info.mark || reader.at != reader.filled) {
        return fail(EPROTO);
    }
    const ssize_t more = reader.fill();
    return more == 0 || (more > 0 ? fail(EPROTO) : false);
}

bool checkHeader(const simlist_dump_info& info) {
    if (info.version != kDumpVersion) {
        return fail(EILSEQ);
    }
    return info.element_size == 0 ||
           std::uint64_t{info.element_size} * info.count == info.content_length || fail(EPROTO);
}

bool restore(simlist* list, int descriptor, simlist_dump_info& info) {
    Reader reader{descriptor, 0, 0, {}};
    DumpHeader header{};
    if (!reader.get(header.data(), header.size())) {
        return false;
    }
    info = unpackHeader(header);
    return checkHeader(info) && restoreContents(list, reader, info) && checkTrailer(reader, info);
}

// Takes out what a failed restore had appended; it is all malloc memory that nobody else knows.
void dropFrom(simlist* list, std::uint32_t count) {
    while (list->count > count) {
        const OwnedData dropped{simlist_extract_at(list, list->count - 1)};
    }
}

bool skip(int descriptor, const simlist_dump_info& info) {
    const std::uint64_t prefixes =
        info.element_size == 0 ? std::uint64_t{info.count} * sizeof(std::uint32_t) : 0;
    return ::lseek(descriptor, static_cast<off_t>(info.content_length + prefixes), SEEK_CUR) >= 0;
}

} // namespace

std::int32_t simlist_restore_filedescriptor(simlist* list, int descriptor, std::size_t* length) {
    if (isIterating(list)) {
        errno = EBUSY;
        return -1;
    }
    const std::uint32_t count = list->count;
    simlist_dump_info info{};
    if (!restore(list, descriptor, info)) {
        const int error = errno;
        dropFrom(list, count);
        errno = error;
        return -1;
    }
    if (length != nullptr) {
        *length = info.content_length;
    }
    return 0;
}

std::int32_t simlist_restore_file(simlist* list, const char* path, std::size_t* length) {
    const Fd file{::open(path, O_RDONLY | O_CLOEXEC)};
    return !file ? -1 : simlist_restore_filedescriptor(list, file.get(), length);
}

std::int32_t simlist_dump_getinfo_filedescriptor(int descriptor, simlist_dump_info* info) {
    DumpHeader header{};
    if (!readExactly(descriptor, header.data(), header.size())) {
        return -1;
    }
    simlist_dump_info found = unpackHeader(header);
    if (found.version > kDumpVersion) {
        errno = EILSEQ;
        return -1;
    }
    DumpTrailer trailer{};
    if (!skip(descriptor, found) || !readExactly(descriptor, trailer.data(), trailer.size())) {
        return -1;
    }
    found.consistent = getBigEndian<std::uint32_t>(trailer.data()) == found.mark ? 1 : 0;
    *info = found;
    return 0;
}

std::int32_t simlist_dump_getinfo_file(const char* path, simlist_dump_info* info) {
    const Fd file{::open(path, O_RDONLY | O_CLOEXEC)};
    return !file ? -1 : simlist_dump_getinfo_filedescriptor(file.get(), info);
}

} // namespace kelconf
