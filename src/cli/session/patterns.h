// Which names a command is about: prefixes, and the shell's patterns.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kelconf::cli {

// A word with "*", "?" or "[" is a pattern of the whole name (fnmatch(3); "*" takes dots, too), any
// other one a prefix. No word means all names.
class Patterns {
  public:
    explicit Patterns(std::vector<std::string> words);

    [[nodiscard]] bool match(std::string_view name);
    // What all names that may match begin with.
    [[nodiscard]] std::string common() const;
    // What the names that match each word begin with.
    [[nodiscard]] std::vector<std::string> beginnings() const;
    // True, and each said, when there are words that no name has matched so far.
    [[nodiscard]] bool saidUnmatched() const;

  private:
    struct Word {
        std::string text;
        bool pattern;
        bool simple; // no "[" and no backslash
        bool matched = false;
    };
    std::vector<Word> words_;
};

} // namespace kelconf::cli
