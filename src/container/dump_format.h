// What writing and reading a dump share: the header's layout and the file's handle.
#pragma once

#include "container/simlist_dump.h"

#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>

namespace kelconf {

inline constexpr std::size_t kDumpHeaderBytes = 30;
inline constexpr std::uint16_t kDumpVersion = 1;

using DumpHeader = std::array<std::uint8_t, kDumpHeaderBytes>;
using DumpTrailer = std::array<std::uint8_t, sizeof(std::uint32_t)>;

template <typename T>
void putBigEndian(std::uint8_t* to, T value) {
    for (std::size_t i = sizeof(T); i-- > 0;) {
        to[i] = static_cast<std::uint8_t>(value & 0xffU);
        value = static_cast<T>(std::uint64_t{value} >> 8);
    }
}

template <typename T>
T getBigEndian(const std::uint8_t* from) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < sizeof(T); ++i) {
        value = value << 8 | from[i];
    }
    return static_cast<T>(value);
}

inline DumpHeader packHeader(const simlist_dump_info& info) {
    DumpHeader header{};
    putBigEndian(header.data(), info.version);
    putBigEndian(header.data() + 2, info.timestamp);
    putBigEndian(header.data() + 10, info.mark);
    putBigEndian(header.data() + 14, info.content_length);
    putBigEndian(header.data() + 18, info.count);
    putBigEndian(header.data() + 22, info.element_size);
    putBigEndian(header.data() + 26, info.hash);
    return header;
}

inline simlist_dump_info unpackHeader(const DumpHeader& header) {
    simlist_dump_info info{};
    info.version = getBigEndian<std::uint16_t>(header.data());
    info.timestamp = getBigEndian<std::uint64_t>(header.data() + 2);
    info.mark = getBigEndian<std::uint32_t>(header.data() + 10);
    info.content_length = getBigEndian<std::uint32_t>(header.data() + 14);
    info.count = getBigEndian<std::uint32_t>(header.data() + 18);
    info.element_size = getBigEndian<std::uint32_t>(header.data() + 22);
    info.hash = getBigEndian<std::uint32_t>(header.data() + 26);
    return info;
}

// Owner of an open descriptor; -1 owns none.
class DumpFile {
  public:
    explicit DumpFile(int descriptor) : descriptor_{descriptor} {}
    ~DumpFile() { static_cast<void>(close()); }
    DumpFile(const DumpFile&) = delete;
    DumpFile& operator=(const DumpFile&) = delete;
    DumpFile(DumpFile&&) = delete;
    DumpFile& operator=(DumpFile&&) = delete;

    [[nodiscard]] int descriptor() const { return descriptor_; }

    // False with errno set when what was written may not have arrived. An errno that is set
    // already survives a close without fault.
    bool close() {
        const int descriptor = descriptor_;
        descriptor_ = -1;
        return descriptor < 0 || ::close(descriptor) == 0;
    }

  private:
    int descriptor_;
};

} // namespace kelconf
