// Decimal numbers, exact: never binary fractions. Pure functions, any thread.
//
// "-" or not, digits, and maybe a point and digits. No "+", no exponent and no blanks, since the
// readers of a value on the device differ about these; leading zeros are fine ("007" is 7, never
// octal). More than 18 digits on a side of the point are no number: no bound of a camera is that
// large.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelconf {

// Two words, since compilers for processors of 32 bits know no wider one. 18 digits on either side
// of the point leave room for the sum of some numbers.
struct Decimal {
    std::int64_t whole = 0;
    std::int64_t part = 0; // in units of 10^-18, never below 0: -0.5 is {-1, 5 * 10^17}

    auto operator<=>(const Decimal&) const = default; // NOLINT(modernize-use-nullptr): has none
};
inline constexpr std::size_t kDecimalDigits = 18;

Decimal operator+(Decimal one, Decimal other);
Decimal operator-(Decimal one, Decimal other);

// Takes a number off the front of `text`; nothing, and `text` as it was, when it begins with none.
std::optional<Decimal> takeDecimal(std::string_view& text);

// The whole text as a number.
std::optional<Decimal> decimalOf(std::string_view text);

// As decimalOf reads it, without needless zeros.
std::string textOf(Decimal number);

bool isWhole(Decimal number);

// `step` is above 0.
bool isMultiple(Decimal number, Decimal step);

} // namespace kelconf
