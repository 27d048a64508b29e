#include "cli/value_rules.h"

#include <charconv>
#include <cmath>
#include <optional>

namespace kelconf::cli {

namespace {

struct Range {
    double low;
    double high;
};

std::optional<double> numberOf(std::string_view text) {
    double number = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number, std::chars_format::fixed);
    if (result.ec != std::errc{} || result.ptr != end || !std::isfinite(number)) {
        return {};
    }
    return number;
}

// "LOW,HIGH", or "LOW-HIGH" without negative numbers.
std::optional<Range> rangeOf(std::string_view text) {
    std::size_t separator = text.find(',');
    if (separator == std::string_view::npos) {
        separator = text.find('-');
    }
    if (separator == std::string_view::npos) {
        return {};
    }
    const auto low = numberOf(text.substr(0, separator));
    const auto high = numberOf(text.substr(separator + 1));
    if (!low || !high || *low > *high) {
        return {};
    }
    return Range{*low, *high};
}

bool isMultiple(double distance, double step) {
    constexpr double kRounding = 1e-6; // of a step: decimal fractions have no exact binary form
    const double steps = distance / step;
    return std::fabs(steps - std::round(steps)) < kRounding;
}

bool isOption(std::string_view options, std::string_view value) {
    const char separator = options.find('|') == std::string_view::npos ? ',' : '|';
    while (true) {
        const std::size_t end = options.find(separator);
        if (options.substr(0, end) == value) {
            return true;
        }
        if (end == std::string_view::npos) {
            return false;
        }
        options.remove_prefix(end + 1);
    }
}

} // namespace

std::string brokenRule(const ValueRule& rule, std::string_view value) {
    if (!rule.options.empty() && !isOption(rule.options, value)) {
        return "the value is none of the options " + std::string{rule.options};
    }
    const auto range = rangeOf(rule.range);
    if (!range) {
        return {};
    }
    const auto number = numberOf(value);
    if (!number || *number < range->low || *number > range->high) {
        return "the value is not in the range " + std::string{rule.range};
    }
    const auto step = numberOf(rule.step);
    if (step && *step > 0 && !isMultiple(*number - range->low, *step)) {
        return "the value is not " +
               std::string{rule.range.substr(0, rule.range.find_first_of(",-", 1))} +
               " plus a multiple of the step " + std::string{rule.step};
    }
    return {};
}

} // namespace kelconf::cli
