#include "cli/secrets.h"

#include "cli/factory.h"

#include <algorithm>
#include <array>

namespace kelconf::cli {

constinit const std::string_view kStars = "********";

namespace {

constexpr const char* kType = "password";

// Both words begin alike, and few names have their rarest letter.
constexpr std::string_view kBeginning = "passw";
constexpr std::array<std::string_view, 2> kEndings{"ord", "d"};

char lowered(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

template <typename Same>
bool holdsWord(std::string_view name, Same same) {
    const auto standsAt = [&](std::size_t at, std::string_view word) {
        return name.size() - at >= word.size() &&
               std::equal(word.begin(), word.end(), name.begin() + static_cast<long>(at),
                          [&](char letter, char c) { return same(c, letter); });
    };
    for (std::size_t i = kBeginning.size() - 1; i < name.size(); ++i) {
        if (same(name[i], kBeginning.back()) && standsAt(i + 1 - kBeginning.size(), kBeginning) &&
            std::any_of(kEndings.begin(), kEndings.end(),
                        [&](std::string_view ending) { return standsAt(i + 1, ending); })) {
            return true;
        }
    }
    return false;
}

} // namespace

bool secretByName(std::string_view name) {
    return holdsWord(name, [](char a, char b) { return lowered(a) == b; });
}

bool storedScrambled(std::string_view name) {
    return holdsWord(name, [](char a, char b) { return a == b; });
}

Secrets::Secrets(const Options& options) : shown_(options.show_secrets) {
    if (shown_) {
        return;
    }
    if (Factory factory; factory) {
        for (std::string& name : factory.namesOfType(kType)) {
            if (!secretByName(name)) {
                typed_.insert(std::move(name));
            }
        }
    }
}

Secrets::Secrets(const Options& options, const std::vector<std::string>& names)
    : shown_(options.show_secrets) {
    const bool told = std::all_of(names.begin(), names.end(),
                                  [](const std::string& name) { return secretByName(name); });
    if (shown_ || told) {
        return;
    }
    if (Factory factory; factory) {
        for (const std::string& name : names) {
            const auto row = factory.find(name);
            if (row && row->type == kType) {
                typed_.insert(name);
            }
        }
    }
}

bool Secrets::hides(std::string_view name) const {
    return !shown_ &&
           (secretByName(name) || (!typed_.empty() && typed_.contains(std::string{name})));
}

} // namespace kelconf::cli
