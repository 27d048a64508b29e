#include "cli/secrets.h"

#include "cli/factory.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace kelconf::cli {

namespace {

constexpr std::array<std::string_view, 2> kWords{"password", "passwd"};
constexpr const char* kType = "password";

bool holds(std::string_view name, std::string_view word, bool (*same)(char, char)) {
    return std::search(name.begin(), name.end(), word.begin(), word.end(), same) != name.end();
}

bool holdsWord(std::string_view name, bool (*same)(char, char)) {
    return std::any_of(kWords.begin(), kWords.end(),
                       [&](std::string_view word) { return holds(name, word, same); });
}

} // namespace

bool secretByName(std::string_view name) {
    return holdsWord(name,
                     [](char a, char b) { return ((a >= 'A' && a <= 'Z') ? a + 32 : a) == b; });
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
