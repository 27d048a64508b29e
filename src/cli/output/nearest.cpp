#include "cli/output/nearest.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <vector>

namespace kelconf::cli {

namespace {

// The distance of Damerau and Levenshtein (neighbours exchanged once), or more than `most`.
std::size_t slips(std::string_view a, std::string_view b, std::size_t most) {
    if (a.size() > b.size() + most || b.size() > a.size() + most) {
        return most + 1;
    }
    std::array<std::vector<std::size_t>, 3> rows; // of the last three letters of `a`
    for (auto& row : rows) {
        row.resize(b.size() + 1);
    }
    for (std::size_t i = 0; i <= a.size(); ++i) {
        auto& row = rows[i % 3];
        const auto& above = rows[(i + 2) % 3];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            if (i == 0) {
                row[j] = j;
                continue;
            }
            const bool same = a[i - 1] == b[j - 1];
            row[j] = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (same ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                row[j] = std::min(row[j], rows[(i + 1) % 3][j - 2] + 1);
            }
        }
    }
    return rows[a.size() % 3][b.size()];
}

} // namespace

std::string nearest(std::string_view word, std::span<const std::string> candidates) {
    std::size_t most = std::max<std::size_t>(word.size() / 3, 1);
    std::string best;
    for (const std::string& candidate : candidates) {
        const std::size_t distance = slips(word, candidate, most);
        if (distance <= most && (best.empty() || distance < most)) {
            best = candidate;
            most = distance;
        }
    }
    return best;
}

std::string didYouMean(std::string_view guess) {
    return guess.empty() ? "" : "; did you mean " + std::string{guess} + "?";
}

} // namespace kelconf::cli
