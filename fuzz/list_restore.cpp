// A file that calls itself a dump: restored or refused, and a list that was restored makes a dump
// that restores again. The first byte chooses the list's attributes.
#include "container/simlist_dump.h"
#include "container/simlist_types.h"
#include "require.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

using namespace kelconf;
using namespace kelconf::fuzz;

namespace {

// Elements of any size: four bytes of length, then as many bytes.
void* sized(const void* buffer, std::uint32_t* length) {
    if (*length == 0) {
        return nullptr;
    }
    auto* element = static_cast<unsigned char*>(std::malloc(sizeof(std::uint32_t) + *length));
    std::memcpy(element, length, sizeof(std::uint32_t));
    std::memcpy(element + sizeof(std::uint32_t), buffer, *length);
    return element;
}

void* unsized(const void* element, std::uint32_t* length) {
    std::memcpy(length, element, sizeof(std::uint32_t));
    void* bytes = std::malloc(*length);
    std::memcpy(bytes, static_cast<const unsigned char*>(element) + sizeof(std::uint32_t), *length);
    return bytes;
}

std::size_t sizeOf(const void* element) {
    std::uint32_t length = 0;
    std::memcpy(&length, element, sizeof(length));
    return sizeof(length) + length;
}

struct Descriptor {
    int fd = memfd_create("dump", 0);
    Descriptor() = default;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { close(fd); }
};

void prepare(simlist& list, unsigned form) {
    require(simlist_init(&list) == 0);
    switch (form % 3) {
    case 0:
        simlist_attributes_copy(&list, list_meter_int32_t, 1);
        break;
    case 1:
        simlist_attributes_copy(&list, simlist_meter_string, 1);
        break;
    default:
        simlist_attributes_copy(&list, sizeOf, 1);
        simlist_attributes_serializer(&list, unsized);
        simlist_attributes_unserializer(&list, sized);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const Descriptor file;
    require(write(file.fd, data + 1, size - 1) == static_cast<ssize_t>(size - 1));
    simlist list;
    prepare(list, data[0]);
    std::size_t length = 0;
    lseek(file.fd, 0, SEEK_SET);
    if (simlist_restore_filedescriptor(&list, file.fd, &length) == 0) {
        require(length <= size);
        const Descriptor copy;
        std::size_t written = 0;
        require(simlist_dump_filedescriptor(&list, copy.fd, &written) == 0 && written == length);
        simlist again;
        prepare(again, data[0]);
        lseek(copy.fd, 0, SEEK_SET);
        require(simlist_restore_filedescriptor(&again, copy.fd, nullptr) == 0);
        require(simlist_size(&again) == simlist_size(&list));
        simlist_destroy(&again);
    } else {
        require(simlist_size(&list) == 0);
    }
    simlist_dump_info info;
    lseek(file.fd, 0, SEEK_SET);
    simlist_dump_getinfo_filedescriptor(file.fd, &info);
    simlist_destroy(&list);
    return 0;
}
