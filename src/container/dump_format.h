// What writing and reading a dump share: the header's layout and the way to fail.
#pragma once

#include "base/big_endian.h"
#include "container/simlist_dump.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace kelconf {

inline constexpr std::size_t kDumpHeaderBytes = 30;
inline constexpr std::uint16_t kDumpVersion = 1;
inline constexpr std::size_t kDumpBufferBytes = 16UL * 1024;

using DumpHeader = std::array<std::uint8_t, kDumpHeaderBytes>;
using DumpTrailer = std::array<std::uint8_t, sizeof(std::uint32_t)>;

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

// False, with errno set.
inline bool fail(int error) {
    errno = error;
    return false;
}

} // namespace kelconf
