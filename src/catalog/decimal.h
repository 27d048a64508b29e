// Decimal numbers, exact: never binary fractions. Pure functions, any thread.
//
// "-" or not, digits, and maybe a point and digits. No "+", no exponent and no blanks, since the
// readers of a value on the device differ about these; leading zeros are fine ("007" is 7, never
// octal). More than 18 digits on a side of the point are no number: no bound of a camera is that
// large.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kelconf {

// In units of 10^-18. 18 digits on either side of the point leave room in 128 bits for the
// difference of two numbers.
__extension__ using Decimal = __int128;
inline constexpr std::size_t kDecimalDigits = 18;

// Takes a number off the front of `text`; nothing, and `text` as it was, when it begins with none.
std::optional<Decimal> takeDecimal(std::string_view& text);

// The whole text as a number.
std::optional<Decimal> decimalOf(std::string_view text);

// As decimalOf reads it, without needless zeros.
std::string textOf(Decimal number);

bool isWhole(Decimal number);

} // namespace kelconf
