#include "catalog/value_rules.h"

#include "catalog/decimal.h"

#include <algorithm>
#include <optional>

namespace kelconf {

namespace {

std::string_view trimmed(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n";
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

struct Range {
    std::optional<Decimal> low; // none: no lower end
    std::optional<Decimal> high;
    std::string_view low_text;
    std::string_view high_text;
};

// "LOW-HIGH": the first "-" after a digit parts the two, so both may be negative.
std::size_t findDash(std::string_view text) {
    std::string_view rest = text;
    const bool number = takeDecimal(rest).has_value();
    const std::string_view blanks_gone = trimmed(rest);
    return number && blanks_gone.starts_with('-') ? text.find('-', text.size() - rest.size())
                                                  : std::string_view::npos;
}

// "LOW,HIGH", one of which may be missing, or "LOW-HIGH".
std::optional<Range> rangeOf(std::string_view text) {
    text = trimmed(text);
    const bool comma = text.find(',') != std::string_view::npos;
    const std::size_t separator = comma ? text.find(',') : findDash(text);
    if (separator == std::string_view::npos) {
        return {};
    }
    Range range;
    range.low_text = trimmed(text.substr(0, separator));
    range.high_text = trimmed(text.substr(separator + 1));
    range.low = decimalOf(range.low_text);
    range.high = decimalOf(range.high_text);
    const bool low_known = range.low || (comma && range.low_text.empty());
    const bool high_known = range.high || (comma && range.high_text.empty());
    const bool any = range.low || range.high;
    if (!low_known || !high_known || !any ||
        (range.low && range.high && *range.low > *range.high)) {
        return {};
    }
    return range;
}

std::optional<Decimal> stepOf(std::string_view text) {
    const auto step = decimalOf(trimmed(text));
    return step && *step > Decimal{} ? step : std::nullopt;
}

// Range and step of a text may well mean its length: they are not enforced.
bool isText(std::string_view type) {
    return type == "string" || type == "password";
}

std::string inWords(const Range& range) {
    const std::string low{range.low_text};
    const std::string high{range.high_text};
    return !range.low ? "at most " + high : !range.high ? "at least " + low : low + " to " + high;
}

std::string inWords(const std::vector<std::string_view>& words) {
    constexpr std::size_t kShown = 200; // bytes; one line of an error has room for no more
    std::string text;
    for (const std::string_view word : words) {
        if (text.size() > kShown) {
            return text + ", ...";
        }
        text.append(text.empty() ? "" : ", ").append(word.empty() ? "nothing" : word);
    }
    return text;
}

bool has(const std::vector<std::string_view>& words, std::string_view value) {
    return std::find(words.begin(), words.end(), value) != words.end();
}

bool hasNumber(const std::vector<std::string_view>& words) {
    return std::any_of(words.begin(), words.end(),
                       [](std::string_view word) { return decimalOf(word).has_value(); });
}

std::string brokenNumber(const ValueRule& rule, const std::optional<Range>& range,
                         const std::optional<Decimal>& step, std::string_view value) {
    const auto number = decimalOf(value);
    if (!number) {
        return range ? "must be a number, " + inWords(*range) : "must be a number";
    }
    if (range &&
        ((range->low && *number < *range->low) || (range->high && *number > *range->high))) {
        return "must be " + inWords(*range);
    }
    if (rule.type == "int" && !isWhole(*number)) {
        return "must be a whole number";
    }
    const Decimal base = range ? range->low.value_or(Decimal{}) : Decimal{};
    if (!step || isMultiple(*number - base, *step)) {
        return {};
    }
    const std::string multiple = "a multiple of " + std::string{trimmed(rule.step)};
    return base == Decimal{} ? "must be " + multiple
                             : "must be " + std::string{range->low_text} + " plus " + multiple;
}

} // namespace

std::vector<std::string_view> optionWords(std::string_view options) {
    std::vector<std::string_view> words;
    if (trimmed(options).empty()) {
        return words;
    }
    const char separator = options.find('|') == std::string_view::npos ? ',' : '|';
    for (;;) {
        const std::size_t end = options.find(separator);
        words.push_back(trimmed(options.substr(0, end)));
        if (end == std::string_view::npos) {
            return words;
        }
        options.remove_prefix(end + 1);
    }
}

std::string brokenRule(const ValueRule& rule, std::string_view value) {
    const auto words = optionWords(rule.options);
    const auto range = isText(rule.type) ? std::nullopt : rangeOf(rule.range);
    const auto step = isText(rule.type) ? std::nullopt : stepOf(rule.step);
    const bool numbers = range || step;
    if (has(words, value)) {
        // A word among the options stands beside the range: "auto" with "16,48".
        return numbers && decimalOf(value) ? brokenNumber(rule, range, step, value) : "";
    }
    // A single option is no list: it may be in a form that only people read.
    if (words.size() > 1 && (!numbers || hasNumber(words) || !decimalOf(value))) {
        const bool beside = range && !hasNumber(words);
        return "must be one of " + inWords(words) + (beside ? ", or " + inWords(*range) : "");
    }
    return numbers ? brokenNumber(rule, range, step, value) : "";
}

RuleInWords inWords(const ValueRule& rule) {
    const auto range = isText(rule.type) ? std::nullopt : rangeOf(rule.range);
    const auto step = isText(rule.type) ? std::nullopt : stepOf(rule.step);
    const auto text = [](const std::optional<Decimal>& number) {
        return number ? textOf(*number) : std::string{};
    };
    RuleInWords shown{range ? text(range->low) : "", range ? text(range->high) : "", text(step),
                      optionWords(rule.options), ""};
    if (shown.options.size() < 2) {
        shown.options.clear();
    } else {
        shown.words = "one of " + inWords(shown.options);
    }
    if (range && !hasNumber(shown.options)) {
        shown.words.append(shown.words.empty() ? "" : ", or ").append(inWords(*range));
    }
    if (step && shown.step != "1") {
        shown.words.append(shown.words.empty() ? "" : ", ").append("in steps of " + shown.step);
    }
    return shown;
}

std::string unknownForm(const ValueRule& rule) {
    const auto unknown = [](const char* attribute, std::string_view text) {
        return std::string{attribute} + " \"" + std::string{text} + "\"";
    };
    if (!rule.range.empty() && (isText(rule.type) || !rangeOf(rule.range))) {
        return unknown("range", rule.range);
    }
    if (!rule.step.empty() && (isText(rule.type) || !stepOf(rule.step))) {
        return unknown("step", rule.step);
    }
    return !rule.options.empty() && optionWords(rule.options).size() < 2
               ? unknown("options", rule.options)
               : "";
}

} // namespace kelconf
