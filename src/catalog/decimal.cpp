#include "catalog/decimal.h"

#include <algorithm>

namespace kelconf {

namespace {

constexpr std::int64_t kParts = 1'000'000'000'000'000'000;

std::string_view leadingDigits(std::string_view text) {
    return text.substr(0, text.find_first_not_of("0123456789"));
}

// Of at most 18 digits, as if zeros followed up to `places`.
std::int64_t numberOf(std::string_view digits, std::size_t places) {
    std::int64_t number = 0;
    for (std::size_t i = 0; i < places; ++i) {
        number = number * 10 + (i < digits.size() ? digits[i] - '0' : 0);
    }
    return number;
}

// What all whole steps leave of a number that is not below 0.
Decimal restOf(Decimal number, Decimal step) {
    if (number < step) {
        return number;
    }
    const Decimal rest = restOf(number, step + step);
    return rest < step ? rest : rest - step;
}

} // namespace

Decimal operator+(Decimal one, Decimal other) {
    const Decimal sum{one.whole + other.whole, one.part + other.part};
    return sum.part < kParts ? sum : Decimal{sum.whole + 1, sum.part - kParts};
}

Decimal operator-(Decimal one, Decimal other) {
    const Decimal rest{one.whole - other.whole, one.part - other.part};
    return rest.part >= 0 ? rest : Decimal{rest.whole - 1, rest.part + kParts};
}

std::optional<Decimal> takeDecimal(std::string_view& text) {
    const bool negative = text.starts_with('-');
    std::string_view rest = text.substr(negative ? 1 : 0);
    std::string_view whole = leadingDigits(rest);
    if (whole.empty()) {
        return {};
    }
    rest.remove_prefix(whole.size());
    std::string_view part;
    if (rest.starts_with('.')) {
        part = leadingDigits(rest.substr(1));
        if (part.empty()) {
            return {};
        }
        rest.remove_prefix(1 + part.size());
    }
    whole.remove_prefix(std::min(whole.find_first_not_of('0'), whole.size()));
    part = part.substr(0, part.find_last_not_of('0') + 1);
    if (whole.size() > kDecimalDigits || part.size() > kDecimalDigits) {
        return {};
    }
    const Decimal number{numberOf(whole, whole.size()), numberOf(part, kDecimalDigits)};
    text = rest;
    return negative ? Decimal{} - number : number;
}

std::optional<Decimal> decimalOf(std::string_view text) {
    const auto number = takeDecimal(text);
    return text.empty() ? number : std::nullopt;
}

std::string textOf(Decimal number) {
    const bool negative = number < Decimal{};
    const Decimal size = negative ? Decimal{} - number : number;
    std::string part = std::to_string(size.part);
    part.insert(0, kDecimalDigits - part.size(), '0');
    part.erase(part.find_last_not_of('0') + 1);
    return (negative ? "-" : "") + std::to_string(size.whole) + (part.empty() ? "" : "." + part);
}

bool isWhole(Decimal number) {
    return number.part == 0;
}

bool isMultiple(Decimal number, Decimal step) {
    return restOf(number < Decimal{} ? Decimal{} - number : number, step) == Decimal{};
}

} // namespace kelconf
