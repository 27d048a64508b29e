#include "cli/session/patterns.h"

#include "cli/output/output.h"

#include <fnmatch.h>

#include <algorithm>
#include <utility>

namespace kelconf::cli {

namespace {

constexpr const char* kSpecial = "*?[\\";

} // namespace

Patterns::Patterns(std::vector<std::string> words) {
    for (std::string& word : words) {
        const bool pattern = word.find_first_of("*?[") != std::string::npos;
        words_.push_back({std::move(word), pattern});
    }
}

bool Patterns::match(std::string_view name) {
    bool any = words_.empty();
    std::string whole; // fnmatch wants a text that ends
    for (Word& word : words_) {
        if (word.pattern && whole.empty()) {
            whole = name;
        }
        if (word.pattern ? fnmatch(word.text.c_str(), whole.c_str(), 0) == 0
                         : name.starts_with(word.text)) {
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
