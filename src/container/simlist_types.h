// Callbacks for lists of plain values and of texts. An element is a pointer to the value, or to
// the first byte of a NUL-terminated text.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kelconf {

// 1 when a < b, -1 when a > b, else 0 (also for a NaN): with direction 1, simlist_sort sorts
// upwards.
std::int32_t simlist_comparator_int8_t(const void* a, const void* b);
std::int32_t simlist_comparator_int16_t(const void* a, const void* b);
std::int32_t simlist_comparator_int32_t(const void* a, const void* b);
std::int32_t simlist_comparator_int64_t(const void* a, const void* b);
std::int32_t simlist_comparator_uint8_t(const void* a, const void* b);
std::int32_t simlist_comparator_uint16_t(const void* a, const void* b);
std::int32_t simlist_comparator_uint32_t(const void* a, const void* b);
std::int32_t simlist_comparator_uint64_t(const void* a, const void* b);
std::int32_t simlist_comparator_float(const void* a, const void* b);
std::int32_t simlist_comparator_double(const void* a, const void* b);
// Positive when a sorts before b in byte order.
std::int32_t simlist_comparator_string(const void* a, const void* b);

// Size of the element in bytes; for a text with its NUL.
std::size_t list_meter_int8_t(const void* element);
std::size_t list_meter_int16_t(const void* element);
std::size_t list_meter_int32_t(const void* element);
std::size_t list_meter_int64_t(const void* element);
std::size_t list_meter_uint8_t(const void* element);
std::size_t list_meter_uint16_t(const void* element);
std::size_t list_meter_uint32_t(const void* element);
std::size_t list_meter_uint64_t(const void* element);
std::size_t list_meter_float(const void* element);
std::size_t list_meter_double(const void* element);
std::size_t simlist_meter_string(const void* element);

// The value's low 32 bits, a negative one sign-extended; of a floating-point value its whole
// part's, 0 for an infinity or a NaN.
std::uint32_t simlist_hashcomputer_int8_t(const void* element);
std::uint32_t simlist_hashcomputer_int16_t(const void* element);
std::uint32_t simlist_hashcomputer_int32_t(const void* element);
std::uint32_t simlist_hashcomputer_int64_t(const void* element);
std::uint32_t simlist_hashcomputer_uint8_t(const void* element);
std::uint32_t simlist_hashcomputer_uint16_t(const void* element);
std::uint32_t simlist_hashcomputer_uint32_t(const void* element);
std::uint32_t simlist_hashcomputer_uint64_t(const void* element);
std::uint32_t simlist_hashcomputer_float(const void* element);
std::uint32_t simlist_hashcomputer_double(const void* element);
std::uint32_t simlist_hashcomputer_string(const void* element);

} // namespace kelconf
