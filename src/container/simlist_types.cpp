#include "container/simlist_types.h"

#include <cmath>
#include <cstring>

namespace kelconf {

namespace {

template <typename T>
T valueOf(const void* element) {
    return *static_cast<const T*>(element);
}

template <typename T>
std::int32_t compare(const void* a, const void* b) {
    const T left = valueOf<T>(a);
    const T right = valueOf<T>(b);
    return static_cast<std::int32_t>(left < right) - static_cast<std::int32_t>(left > right);
}

template <typename T>
std::uint32_t hashInteger(const void* element) {
    return static_cast<std::uint32_t>(valueOf<T>(element));
}

// A conversion of a value beyond 64 bits is undefined, a remainder by 2^32 is exact for any.
std::uint32_t hashReal(double value) {
    constexpr double kRange = 4294967296.0;
    if (!std::isfinite(value)) {
        return 0;
    }
    return static_cast<std::uint32_t>(
        static_cast<std::int64_t>(std::fmod(std::trunc(value), kRange)));
}

} // namespace

std::int32_t simlist_comparator_int8_t(const void* a, const void* b) {
    return compare<std::int8_t>(a, b);
}
std::int32_t simlist_comparator_int16_t(const void* a, const void* b) {
    return compare<std::int16_t>(a, b);
}
std::int32_t simlist_comparator_int32_t(const void* a, const void* b) {
    return compare<std::int32_t>(a, b);
}
std::int32_t simlist_comparator_int64_t(const void* a, const void* b) {
    return compare<std::int64_t>(a, b);
}
std::int32_t simlist_comparator_uint8_t(const void* a, const void* b) {
    return compare<std::uint8_t>(a, b);
}
std::int32_t simlist_comparator_uint16_t(const void* a, const void* b) {
    return compare<std::uint16_t>(a, b);
}
std::int32_t simlist_comparator_uint32_t(const void* a, const void* b) {
    return compare<std::uint32_t>(a, b);
}
std::int32_t simlist_comparator_uint64_t(const void* a, const void* b) {
    return compare<std::uint64_t>(a, b);
}
std::int32_t simlist_comparator_float(const void* a, const void* b) {
    return compare<float>(a, b);
}
std::int32_t simlist_comparator_double(const void* a, const void* b) {
    return compare<double>(a, b);
}
std::int32_t simlist_comparator_string(const void* a, const void* b) {
    return std::strcmp(static_cast<const char*>(b), static_cast<const char*>(a));
}

std::size_t list_meter_int8_t(const void* /*element*/) {
    return sizeof(std::int8_t);
}
std::size_t list_meter_int16_t(const void* /*element*/) {
    return sizeof(std::int16_t);
}
std::size_t list_meter_int32_t(const void* /*element*/) {
    return sizeof(std::int32_t);
}
std::size_t list_meter_int64_t(const void* /*element*/) {
    return sizeof(std::int64_t);
}
std::size_t list_meter_uint8_t(const void* /*element*/) {
    return sizeof(std::uint8_t);
}
std::size_t list_meter_uint16_t(const void* /*element*/) {
    return sizeof(std::uint16_t);
}
std::size_t list_meter_uint32_t(const void* /*element*/) {
    return sizeof(std::uint32_t);
}
std::size_t list_meter_uint64_t(const void* /*element*/) {
    return sizeof(std::uint64_t);
}
std::size_t list_meter_float(const void* /*element*/) {
    return sizeof(float);
}
std::size_t list_meter_double(const void* /*element*/) {
    return sizeof(double);
}
std::size_t simlist_meter_string(const void* element) {
    return std::strlen(static_cast<const char*>(element)) + 1;
}

std::uint32_t simlist_hashcomputer_int8_t(const void* element) {
    return hashInteger<std::int8_t>(element);
}
std::uint32_t simlist_hashcomputer_int16_t(const void* element) {
    return hashInteger<std::int16_t>(element);
}
std::uint32_t simlist_hashcomputer_int32_t(const void* element) {
    return hashInteger<std::int32_t>(element);
}
std::uint32_t simlist_hashcomputer_int64_t(const void* element) {
    return hashInteger<std::int64_t>(element);
}
std::uint32_t simlist_hashcomputer_uint8_t(const void* element) {
    return hashInteger<std::uint8_t>(element);
}
std::uint32_t simlist_hashcomputer_uint16_t(const void* element) {
    return hashInteger<std::uint16_t>(element);
}
std::uint32_t simlist_hashcomputer_uint32_t(const void* element) {
    return valueOf<std::uint32_t>(element);
}
std::uint32_t simlist_hashcomputer_uint64_t(const void* element) {
    return hashInteger<std::uint64_t>(element);
}
std::uint32_t simlist_hashcomputer_float(const void* element) {
    return hashReal(static_cast<double>(valueOf<float>(element)));
}
std::uint32_t simlist_hashcomputer_double(const void* element) {
    return hashReal(valueOf<double>(element));
}

std::uint32_t simlist_hashcomputer_string(const void* element) {
    std::uint32_t hash = 123;
    const auto* text = static_cast<const unsigned char*>(element);
    for (std::size_t i = 0; text[i] != '\0'; ++i) {
        const std::uint32_t byte = i == 0 ? 0U : text[i]; // the first byte counts as 0
        hash += ((hash ^ byte) & 0xffU) << (8 * (i % 4));
    }
    return hash;
}

} // namespace kelconf
