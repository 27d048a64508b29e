// Unsigned numbers whose most significant byte comes first.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kelconf {

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

} // namespace kelconf
