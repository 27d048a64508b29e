#include "cli/secrets.h"

#include "cli/factory.h"

#include <algorithm>
#include <array>

namespace kelconf::cli {

constinit const std::string_view kStars = "********";

namespace {

constexpr const char* kType = "password";

// Both words begin alike, so one search serves both.
constexpr std::string_view kBeginning = "passw";
constexpr std::array<std::string_view, 2> kEndings{"ord", "d"};

char lowered(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

template <typename Same>
bool holdsWord(std::string_view name, Same same) {
    for (const auto* at = name.begin();; ++at) {
        at = std::search(at, name.end(), kBeginning.begin(), kBeginning.end(), same);
        if (at == name.end()) {
            return false;
        }
        const auto* rest = at + kBeginning.size();
        for (const std::string_view ending : kEndings) {
            if (static_cast<std::size_t>(name.end() - rest) >= ending.size() &&
                std::equal(rest, rest + ending.size(), ending.begin(), same)) {
                return true;
            }
        }
    }
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
