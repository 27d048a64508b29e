#include "catalog/secrets.h"

#include "catalog/catalog.h"

#include <algorithm>
#include <array>

namespace kelconf {

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

bool isSecret(std::string_view name, std::string_view type) {
    return type == kType || secretByName(name);
}

bool cutWhenStored(std::string_view name, std::string_view value) {
    return value.find('=') != std::string_view::npos &&
           holdsWord(name, [](char a, char b) { return a == b; });
}

Secrets::Secrets(bool show) : shown_(show) {
    if (shown_) {
        return;
    }
    if (Catalog catalog; catalog) {
        for (std::string& name : catalog.namesOfType(kType)) {
            if (!secretByName(name)) {
                typed_.insert(std::move(name));
            }
        }
    }
}

Secrets::Secrets(bool show, const std::vector<std::string>& names) : shown_(show) {
    const bool told = std::all_of(names.begin(), names.end(),
                                  [](const std::string& name) { return secretByName(name); });
    if (shown_ || told) {
        return;
    }
    if (Catalog catalog; catalog) {
        for (const std::string& name : names) {
            const auto parameter = catalog.find(name);
            if (parameter && parameter->type == kType) {
                typed_.insert(name);
            }
        }
    }
}

bool Secrets::hides(std::string_view name) const {
    return !shown_ &&
           (secretByName(name) || (!typed_.empty() && typed_.contains(std::string{name})));
}

} // namespace kelconf
