// Random operations on a list and on a std::vector: both must stay the same.
#include "container/list_check.h"

#include <algorithm>
#include <random>

namespace kelconf {
namespace {

struct Mix {
    std::uint32_t inserts; // of 100 operations; the rest removes
    std::uint32_t ends;    // of 100 positions: how many are the first or the last
};

struct Model {
    Mix mix;
    std::mt19937 random;
    ScopedList list{};
    std::vector<void*> contents{};
    std::size_t spares = 0;
    std::size_t made = 0;

    std::uint32_t below(std::size_t limit) { return static_cast<std::uint32_t>(random() % limit); }
    bool chance(std::uint32_t percent) { return below(100) < percent; }

    std::uint32_t position(std::size_t limit) {
        const std::size_t end = chance(50) ? 0 : limit - 1;
        return chance(mix.ends) ? static_cast<std::uint32_t>(end) : below(limit);
    }

    bool insert(std::uint32_t at) {
        contents.insert(contents.begin() + at, numbered(++made));
        spares -= spares > 0 ? 1 : 0;
        return simlist_insert_at(&list, numbered(made), at) == 1;
    }

    bool remove(std::uint32_t start, std::uint32_t length) {
        const auto first = contents.begin() + start;
        const void* gone = *first;
        contents.erase(first, first + length);
        spares = std::min<std::size_t>(kSimlistSpares, spares + length);
        if (length > 1 || chance(5)) {
            return simlist_delete_range(&list, start, start + length - 1) == 0;
        }
        return chance(50) ? simlist_delete_at(&list, start) == 0
                          : simlist_extract_at(&list, start) == gone;
    }

    bool clear() {
        spares = std::min<std::size_t>(kSimlistSpares, spares + contents.size());
        contents.clear();
        return simlist_clear(&list) == 0;
    }

    bool step() {
        if (below(4000) == 0) {
            return clear();
        }
        if (contents.empty() || chance(mix.inserts)) {
            return insert(position(contents.size() + 1));
        }
        const std::uint32_t start = position(contents.size());
        const std::size_t longest = contents.size() - start;
        return remove(
            start,
            chance(95) ? 1 : 1 + below(chance(4) ? longest : std::min<std::size_t>(longest, 9)));
    }
};

TEST(SimlistModel, StaysEqualToAVector) {
    for (const Mix& mix : {Mix{50, 20}, {75, 5}, {62, 95}, {60, 0}}) {
        for (const std::uint32_t seed : {1U, 2U, 3U}) {
            Model model{mix, std::mt19937{seed}};
            for (int i = 0; i < 9000; ++i) {
                ASSERT_TRUE(model.step() && model.list.spare_count == model.spares)
                    << mix.inserts << " seed " << seed << " step " << i;
                ASSERT_TRUE(i % 37 != 0 || isSound(model.list, model.contents)) << "step " << i;
            }
        }
    }
}

} // namespace
} // namespace kelconf
