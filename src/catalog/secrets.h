// Which parameters hold secrets, and the stars in their place.
//
// A secret is a parameter whose name holds "password" or "passwd" in any letter case, or to which
// default.db gives the type word "password". Without a readable default.db the names decide.
#pragma once

#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace kelconf {

// What is printed for a secret; listings know it by its address.
extern const std::string_view kStars;

bool secretByName(std::string_view name);
bool isSecret(std::string_view name, std::string_view type);

// True when the value will not come back whole: the service stores a password scrambled, which cuts
// it at its first "=".
bool cutWhenStored(std::string_view name, std::string_view value);
inline constexpr const char* kCutWhenStored =
    "a password with \"=\" comes back cut there after a restart";

class Secrets {
  public:
    // For any number of names. With `show` nothing is hidden, and nothing read.
    explicit Secrets(bool show);
    // For these few names: looks each one up, which is quicker than all.
    Secrets(bool show, const std::vector<std::string>& names);

    // True when the value is to be hidden.
    [[nodiscard]] bool hides(std::string_view name) const;
    // What to print for it. An empty value stays empty: there is no secret in it.
    [[nodiscard]] std::string_view shown(std::string_view name, std::string_view value) const {
        return !value.empty() && hides(name) ? kStars : value;
    }

  private:
    bool shown_ = false;
    std::unordered_set<std::string> typed_; // secrets whose names do not tell
};

} // namespace kelconf
