// What the author of a parameter tree should know about it (docs/tree-format.md).
//
// Reads the file as kelconf-init does and walks it with the same walker, limit on expansion
// included, so that the two agree on what becomes a parameter. Time and memory are bounded as
// there: by the size of the file and the limit. One thread; may throw std::bad_alloc.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf::cli {

enum class Severity {
    kNote,    // good to know
    kWarning, // works, but hardly as meant
    kError    // the tree, or parameters that it seems to define, come to nothing
};

struct Finding {
    long line;
    Severity severity;
    std::string text;
};

struct TreeReport {
    std::string unreadable;        // why the file cannot be read; nothing else is known then
    std::uint64_t parameters = 0;  // rows that kelconf-init makes of this tree alone
    std::vector<Finding> findings; // by line; of each severity the first kMostFindings
    std::array<std::uint64_t, 3> counts{}; // of all findings, by severity

    void add(Severity severity, long line, std::string text);
};

inline constexpr std::uint64_t kMostFindings = 1000;

TreeReport checkTree(const char* path);
TreeReport checkTreeText(std::string_view text);

// A text of the tree at a length that a line has room for.
std::string shortened(std::string_view text);

} // namespace kelconf::cli
