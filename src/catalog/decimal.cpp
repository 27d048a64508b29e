#include "catalog/decimal.h"

#include <algorithm>

namespace kelconf {

namespace {

std::string_view leadingDigits(std::string_view text) {
    return text.substr(0, text.find_first_not_of("0123456789"));
}

} // namespace

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
    Decimal number = 0;
    const auto append = [&number](char digit) { number = number * 10 + (digit - '0'); };
    std::for_each(whole.begin(), whole.end(), append);
    std::for_each(part.begin(), part.end(), append);
    for (std::size_t i = part.size(); i < kDecimalDigits; ++i) {
        append('0');
    }
    text = rest;
    return negative ? -number : number;
}

std::optional<Decimal> decimalOf(std::string_view text) {
    const auto number = takeDecimal(text);
    return text.empty() ? number : std::nullopt;
}

std::string textOf(Decimal number) {
    const bool negative = number < 0;
    std::string digits; // the last one first
    for (Decimal rest = negative ? -number : number; rest != 0; rest /= 10) {
        digits += static_cast<char>('0' + static_cast<int>(rest % 10));
    }
    digits.resize(std::max(digits.size(), kDecimalDigits + 1), '0');
    std::reverse(digits.begin(), digits.end());
    digits.insert(digits.size() - kDecimalDigits, 1, '.');
    digits.erase(digits.find_last_not_of('0') + 1);
    if (digits.back() == '.') {
        digits.pop_back();
    }
    return negative ? "-" + digits : digits;
}

bool isWhole(Decimal number) {
    Decimal one = 1;
    for (std::size_t i = 0; i < kDecimalDigits; ++i) {
        one *= 10;
    }
    return number % one == 0;
}

} // namespace kelconf
