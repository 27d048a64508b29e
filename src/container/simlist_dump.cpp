#include "container/simlist_dump.h"

#include "base/fd.h"
#include "container/dump_format.h"
#include "container/simlist_store.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <utility>

namespace kelconf {

namespace {

constexpr mode_t kFileMode = 0644;

// Collects small pieces into large writes. Both calls return false with errno set.
struct Writer {
    int descriptor;
    std::size_t used = 0;
    std::array<std::uint8_t, kDumpBufferBytes> buffer;

    bool flush();
    bool put(const void* bytes, std::size_t length);
};

bool Writer::flush() {
    return writeAll(descriptor, buffer.data(), std::exchange(used, 0));
}

bool Writer::put(const void* bytes, std::size_t length) {
    const auto* from = static_cast<const std::uint8_t*>(bytes);
    while (length > 0) {
        if (used == buffer.size() && !flush()) {
            return false;
        }
        const std::size_t part = std::min(length, buffer.size() - used);
        std::memcpy(&buffer[used], from, part);
        used += part;
        from += part;
        length -= part;
    }
    return true;
}

// The bytes that stand for one element in a dump.
struct Content {
    OwnedData serialized; // what `bytes` points to, when a serializer made it
    const void* bytes = nullptr;
    std::uint32_t length = 0;
};

bool contentOf(const simlist* list, const void* data, Content& content) {
    if (list->serializer != nullptr) {
        content.length = 0;
        content.serialized.reset(list->serializer(data, &content.length));
        content.bytes = content.serialized.get();
        return content.bytes != nullptr || fail(EINVAL);
    }
    if (data == nullptr) {
        return fail(EINVAL);
    }
    const std::size_t length = list->meter(data);
    content.bytes = data;
    content.length = static_cast<std::uint32_t>(length);
    return length <= std::numeric_limits<std::uint32_t>::max() || fail(EOVERFLOW);
}

bool addLength(std::uint32_t& total, std::uint32_t length) {
    return !__builtin_add_overflow(total, length, &total) || fail(EOVERFLOW);
}

// Writes the elements back to back as long as they are of one size. Sets element_size to that
// size, or to 0 when one differs. Size 0 itself also counts as differing: it means that.
bool writeSameSize(const simlist* list, Writer& writer, simlist_dump_info& info) {
    Content content;
    for (const simlist_element* e = list->head->next; e != list->tail; e = e->next) {
        if (!contentOf(list, e->data, content)) {
            return false;
        }
        if (e == list->head->next) {
            info.element_size = content.length;
        }
        if (content.length != info.element_size || content.length == 0) {
            info.element_size = 0;
            return true;
        }
        if (!addLength(info.content_length, content.length) ||
            !writer.put(content.bytes, content.length)) {
            return false;
        }
    }
    return true;
}

bool writeEachSize(const simlist* list, Writer& writer, simlist_dump_info& info) {
    Content content;
    info.content_length = 0;
    for (const simlist_element* e = list->head->next; e != list->tail; e = e->next) {
        if (!contentOf(list, e->data, content) || !addLength(info.content_length, content.length) ||
            !writer.put(&content.length, sizeof content.length) ||
            !writer.put(content.bytes, content.length)) {
            return false;
        }
    }
    return true;
}

bool seekTo(Writer& writer, std::size_t offset) {
    writer.used = 0;
    return ::lseek(writer.descriptor, static_cast<off_t>(offset), SEEK_SET) >= 0;
}

bool writeContents(const simlist* list, Writer& writer, simlist_dump_info& info) {
    if (!seekTo(writer, kDumpHeaderBytes) || !writeSameSize(list, writer, info)) {
        return false;
    }
    if (info.element_size == 0 &&
        !(seekTo(writer, kDumpHeaderBytes) && writeEachSize(list, writer, info))) {
        return false;
    }
    DumpTrailer trailer{};
    putBigEndian(trailer.data(), info.mark);
    return writer.put(trailer.data(), trailer.size()) && writer.flush();
}

simlist_dump_info describe(const simlist* list) {
    using std::chrono::duration_cast;
    using std::chrono::microseconds;
    simlist_dump_info info{};
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    info.version = kDumpVersion;
    info.timestamp = static_cast<std::uint64_t>(duration_cast<microseconds>(now).count());
    // The time tells apart the dumps of two runs, whose rand() starts alike.
    info.mark =
        static_cast<std::uint32_t>(std::rand()) ^ static_cast<std::uint32_t>(info.timestamp);
    info.count = list->count;
    static_cast<void>(simlist_hash(list, &info.hash)); // stays 0 without a hash computer
    return info;
}

bool hasSizes(const simlist* list) {
    return list->meter != nullptr || list->serializer != nullptr || fail(ENOTTY);
}

// Cuts off old content. What is not a regular file has no length to cut: EINVAL.
bool emptyFile(int descriptor) {
    return ::ftruncate(descriptor, 0) == 0 || errno == EINVAL;
}

bool dump(const simlist* list, int descriptor, std::size_t* length) {
    Writer writer{descriptor, 0, {}};
    simlist_dump_info info = describe(list);
    if (!seekTo(writer, 0) || !emptyFile(descriptor) || !writeContents(list, writer, info)) {
        return false;
    }
    const DumpHeader header = packHeader(info);
    if (!seekTo(writer, 0) || !writer.put(header.data(), header.size()) || !writer.flush()) {
        return false;
    }
    if (length != nullptr) {
        *length = info.content_length;
    }
    return true;
}

} // namespace

std::int32_t simlist_dump_filedescriptor(const simlist* list, int descriptor, std::size_t* length) {
    return hasSizes(list) && dump(list, descriptor, length) ? 0 : -1;
}

std::int32_t simlist_dump_file(const simlist* list, const char* path, std::size_t* length) {
    if (!hasSizes(list)) {
        return -1;
    }
    Fd file{::open(path, O_WRONLY | O_CREAT | O_CLOEXEC, kFileMode)};
    if (!file || !dump(list, file.get(), length)) {
        return -1;
    }
    return file.close();
}

} // namespace kelconf
