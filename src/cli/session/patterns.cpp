#include "cli/session/patterns.h"

#include "cli/output/output.h"

#include <fnmatch.h>

#include <algorithm>
#include <utility>

namespace kelconf::cli {

namespace {

constexpr const char* kSpecial = "*?[\\";

// Whether the text begins with the part of a pattern, in which "?" is any byte.
bool beginsWith(std::string_view text, std::string_view part) {
    return text.size() >= part.size() &&
           std::equal(part.begin(), part.end(), text.begin(),
                      [](char wanted, char c) { return wanted == '?' || wanted == c; });
}

// A pattern of "*", "?" and plain bytes, as fnmatch takes it, which needs ten times as long. What
// stands before the first star and behind the last one is anchored, parts in between are taken
// where they come first.
bool matchesSimple(std::string_view pattern, std::string_view name) {
    const std::size_t first = pattern.find('*');
    if (first == std::string_view::npos) {
        return name.size() == pattern.size() && beginsWith(name, pattern);
    }
    const std::string_view end = pattern.substr(pattern.rfind('*') + 1);
    if (name.size() < first + end.size() || !beginsWith(name, pattern.substr(0, first)) ||
        !beginsWith(name.substr(name.size() - end.size()), end)) {
        return false;
    }
    name = name.substr(first, name.size() - first - end.size());
    pattern = pattern.substr(first, pattern.size() - first - end.size());
    while (pattern.size() > 1) { // "*part*"
        pattern.remove_prefix(1);
        const std::string_view part = pattern.substr(0, pattern.find('*'));
        while (!beginsWith(name, part)) {
            if (name.size() <= part.size()) {
                return false;
            }
            name.remove_prefix(1);
        }
        name.remove_prefix(part.size());
        pattern.remove_prefix(part.size());
    }
    return true;
}

} // namespace

Patterns::Patterns(std::vector<std::string> words) {
    for (std::string& word : words) {
        const bool pattern = word.find_first_of("*?[") != std::string::npos;
        const bool simple = word.find_first_of("[\\") == std::string::npos;
        words_.push_back({std::move(word), pattern, simple});
    }
}

bool Patterns::match(std::string_view name) {
    bool any = words_.empty();
    for (Word& word : words_) {
        const bool matches = !word.pattern ? name.starts_with(word.text)
                             : word.simple
                                 ? matchesSimple(word.text, name)
                                 : fnmatch(word.text.c_str(), std::string{name}.c_str(), 0) == 0;
        if (matches) {
            word.matched = any = true;
        }
    }
    return any;
}

std::vector<std::string> Patterns::beginnings() const {
    std::vector<std::string> beginnings;
    for (const Word& word : words_) {
        beginnings.push_back(word.pattern ? word.text.substr(0, word.text.find_first_of(kSpecial))
                                          : word.text);
    }
    return beginnings;
}

std::string Patterns::common() const {
    const std::vector<std::string> all = beginnings();
    std::string common = all.empty() ? "" : all.front();
    for (const std::string& each : all) {
        const auto end = std::mismatch(common.begin(), common.end(), each.begin(), each.end());
        common.erase(end.first, common.end());
    }
    return common;
}

bool Patterns::saidUnmatched() const {
    bool said = false;
    for (const Word& word : words_) {
        if (!word.matched) {
            complain((word.pattern ? "no name matches " : "no name begins with ") + word.text +
                     "; kelctl list shows all names");
            said = true;
        }
    }
    return said;
}

} // namespace kelconf::cli
