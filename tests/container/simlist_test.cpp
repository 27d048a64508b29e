#include "container/list_check.h"
#include "container/simlist_types.h"

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <random>
#include <thread>

namespace kelconf {
namespace {

using Results = std::vector<std::int32_t>;

// More than there is: with 32 bits half of all addresses may be free. With 64, a size that is
// negative as a signed one would be a finding of valgrind's.
std::size_t hugeSize(const void* /*element*/) {
    constexpr std::size_t kMost = std::numeric_limits<std::size_t>::max();
    return sizeof(std::size_t) > sizeof(std::uint32_t) ? kMost / 2 : kMost - 4096;
}

std::int32_t isNumber(const void* element, const void* indicator) {
    return element == indicator ? 7 : 0;
}

struct Simlist : ::testing::Test {
    ScopedList list;
};

TEST_F(Simlist, RefusesNoListAndWhatCannotBeCopied) {
    simlist other{};
    const Results results{simlist_init(nullptr),
                          simlist_attributes_comparator(nullptr, nullptr),
                          simlist_attributes_seeker(nullptr, nullptr),
                          simlist_attributes_copy(nullptr, hugeSize, 1),
                          simlist_attributes_hash_computer(nullptr, nullptr),
                          simlist_attributes_serializer(nullptr, nullptr),
                          simlist_attributes_unserializer(nullptr, nullptr),
                          simlist_concat(nullptr, &list, &other),
                          simlist_concat(&list, nullptr, &other),
                          simlist_concat(&list, &list, nullptr),
                          simlist_concat(&list, &other, &list),
                          simlist_concat(&other, &list, &list),
                          simlist_attributes_copy(&list, nullptr, 1)};
    EXPECT_EQ(results, Results(results.size(), -1));
    EXPECT_EQ(simlist_append(&list, "stored as it is"), 1);
    ASSERT_EQ(simlist_attributes_copy(&list, hugeSize, 1), 0);
    EXPECT_EQ(simlist_append(&list, "x"), -1);
    list.copy_data = 0;
}

TEST_F(Simlist, HasTwoEndsAndNothingOutside) {
    for (const std::uint32_t count : {0U, 1U, 3U}) {
        const Contents all = fill(&list, count);
        EXPECT_EQ(simlist_empty(&list), count == 0 ? 1 : 0);
        for (const std::uint32_t outside : {count, count + 1, 0x7fffffffU, 0xffffffffU}) {
            EXPECT_EQ(simlist_get_at(&list, outside), nullptr);
            EXPECT_EQ(simlist_extract_at(&list, outside), nullptr);
            EXPECT_EQ(simlist_delete_at(&list, outside), -1);
            EXPECT_EQ(simlist_delete_range(&list, 0, outside), -1);
            EXPECT_EQ(simlist_insert_at(&list, &list, outside), outside == count ? 1 : -1);
            EXPECT_EQ(simlist_delete_at(&list, count), outside == count ? 0 : -1);
        }
        EXPECT_EQ(simlist_delete_range(&list, 2, 1), -1);
        EXPECT_EQ(simlist_prepend(&list, &list), 1);
        EXPECT_EQ(simlist_fetch(&list), &list);
        EXPECT_EQ(contentsOf(list), all);
        simlist_clear(&list);
    }
}

TEST_F(Simlist, OwnsCopiesUntilExtracted) { // what leaks is found by the leak checkers
    simlist_attributes_comparator(&list, simlist_comparator_int32_t);
    ASSERT_EQ(simlist_attributes_copy(&list, list_meter_int32_t, 1), 0);
    std::int32_t value = 1;
    for (int i = 0; i < 40; ++i) {
        ASSERT_EQ(simlist_append(&list, &value), 1);
    }
    EXPECT_EQ(simlist_append(&list, nullptr), 1) << "stored as NULL, there is nothing to copy";
    EXPECT_EQ(simlist_delete_at(&list, 40), 0);
    EXPECT_EQ(simlist_delete_range(&list, 3, 12), 0);
    EXPECT_EQ(simlist_delete(&list, &value), 0);
    value = 2; // the caller's is not the stored one
    auto* taken = static_cast<std::int32_t*>(simlist_extract_at(&list, 7));
    EXPECT_EQ(simlist_clear(&list), 0);
    EXPECT_EQ(simlist_append(&list, &value), 1);
    EXPECT_EQ(*taken, 1);
    std::free(taken);
}

// Equal are values of one tens digit; only an element that lies in `stored` may come second.
std::vector<int> stored;
std::int32_t compareTens(const void* a, const void* b) {
    EXPECT_TRUE(b >= stored.data() && b < stored.data() + stored.size());
    return simlist_comparator_int32_t(a, b) *
           (*static_cast<const int*>(a) / 10 == *static_cast<const int*>(b) / 10 ? 0 : 1);
}

TEST_F(Simlist, FindsByComparatorOrIdentityOrSeeker) {
    stored = {40, 90, 41, 10, 91, 11};
    const int ninety = 99;
    simlist_attributes_comparator(&list, compareTens);
    EXPECT_EQ(simlist_get_max(&list), nullptr);
    for (const int& value : stored) {
        simlist_append(&list, &value);
    }
    EXPECT_EQ(simlist_get_max(&list), &stored[1]) << "the first of equal ones stays the best";
    EXPECT_EQ(simlist_get_min(&list), &stored[3]);
    EXPECT_EQ((Results{simlist_contains(&list, &ninety), simlist_delete(&list, &ninety),
                       simlist_locate(&list, &ninety), simlist_delete(&list, &ninety),
                       simlist_delete(&list, &ninety), simlist_contains(&list, &ninety)}),
              (Results{1, 0, 3, 0, -1, 0}));
    simlist_attributes_comparator(&list, nullptr);
    EXPECT_EQ(simlist_locate(&list, &stored[2]), 1) << "without a comparator only identity counts";
    EXPECT_EQ(
        (Contents{simlist_get_max(&list), simlist_get_min(&list), simlist_seek(&list, &list)}),
        Contents(3));
    simlist_attributes_seeker(&list, isNumber);
    EXPECT_EQ(simlist_seek(&list, &stored[2]), &stored[2]);
    EXPECT_EQ(simlist_seek(&list, &ninety), nullptr);
}

TEST_F(Simlist, ConcatSharesDataAndClearsAttributes) {
    const Contents half = fill(&list, 700);
    simlist_attributes_seeker(&list, isNumber);
    simlist_attributes_comparator(&list, simlist_comparator_int32_t);
    simlist both{};
    for (int round = 0; round < 2; ++round) { // what was destroyed can be made anew
        ASSERT_EQ(simlist_concat(&list, &list, &both), 0);
        EXPECT_TRUE(both.seeker == nullptr && both.comparator == nullptr);
        EXPECT_EQ(simlist_delete_range(&both, 0, 699), 0);
        EXPECT_EQ(contentsOf(both), half);
        simlist_destroy(&both);
    }
    EXPECT_EQ(contentsOf(list), half);
}

TEST_F(Simlist, ChangesNothingDuringAnIteration) {
    const Contents two = fill(&list, 2);
    simlist_attributes_comparator(&list, simlist_comparator_int32_t);
    EXPECT_EQ(simlist_iterator_next(&list), nullptr);
    EXPECT_EQ(
        (Results{simlist_iterator_hasnext(&list), simlist_iterator_stop(&list),
                 simlist_iterator_start(&list), simlist_iterator_start(&list),
                 simlist_append(&list, "x"), simlist_delete_at(&list, 0),
                 simlist_delete_range(&list, 0, 1), simlist_clear(&list), simlist_sort(&list, 1)}),
        (Results{0, 0, 1, 0, -1, -1, -1, -1, -1}));
    EXPECT_EQ(simlist_fetch(&list), nullptr);
    for (const std::size_t i : {0U, 1U, 2U, 2U}) {
        EXPECT_EQ(simlist_iterator_hasnext(&list), i < 2 ? 1 : 0);
        EXPECT_EQ(list.iterator_position, i);
        EXPECT_EQ(simlist_iterator_next(&list), i < 2 ? two[i] : nullptr) << "past the end too";
    }
    EXPECT_EQ(simlist_iterator_stop(&list), 1);
    EXPECT_EQ(list.iterator_position, 0U);
    EXPECT_EQ(contentsOf(list), two);
    simlist_iterator_start(&list); // destroying does not lose the elements of an open iteration
}

TEST_F(Simlist, HashFollowsOrderCountAndContent) {
    const std::uint32_t values[] = {4, 20, 300};
    std::uint32_t hash = 77; // what the variable held before must not matter
    EXPECT_EQ(simlist_hash(&list, &hash), -1);
    simlist_attributes_hash_computer(&list, simlist_hashcomputer_uint32_t);
    EXPECT_EQ(simlist_hash(&list, &hash), 0);
    EXPECT_EQ(hash, 100U) << "of no element: others may end alike from different beginnings";
    for (const std::uint32_t& value : values) {
        simlist_append(&list, &value);
    }
    EXPECT_EQ(simlist_hash(&list, &hash), 0);
    // 106 + (106 ^ 4) = 216, + 216 % 3; 216 + (216 ^ 20) = 420, + 0; 420 + (420 ^ 300) = 556, + 1
    EXPECT_EQ(hash, 557U);
}

TEST_F(Simlist, SharedByReadersWithoutALock) {
    const Contents all = fill(&list, 3000);
    const auto read = [&] { EXPECT_EQ(contentsOf(list), all); };
    const std::jthread other{read};
    read();
}

// Random operations on a list and on a vector: both must stay the same, and the pool must hold
// what was removed, up to five records.
TEST(SimlistModel, StaysEqualToAVector) {
    std::mt19937 random{1};
    const auto below = [&](std::size_t limit) {
        return static_cast<std::uint32_t>(random() % limit);
    };
    // Of 100 operations, the insertions; of 100 positions, those that are the first or the last.
    for (const auto& [inserts, ends] : {std::pair{50U, 20U}, {75U, 5U}, {62U, 95U}, {60U, 0U}}) {
        ScopedList list;
        Contents contents;
        for (std::size_t i = 1; i <= 20000; ++i) {
            const bool adds = contents.empty() || below(100) < inserts;
            const auto last = static_cast<std::uint32_t>(contents.size()) - (adds ? 0 : 1);
            const std::uint32_t at = below(100) < ends ? below(2) * last : below(last + 1);
            const auto place = contents.begin() + static_cast<std::ptrdiff_t>(at);
            std::size_t spares = list.spare_count;
            if (adds) {
                spares -= spares > 0 ? 1 : 0;
                ASSERT_EQ(simlist_insert_at(&list, numbered(i), at), 1);
                contents.insert(place, numbered(i));
            } else if (const std::uint32_t more =
                           below(20) > 0 ? 0 : below(last - at + 1) % (1 + below(1000));
                       more > 0 || below(2) == 0) {
                spares += more + 1;
                ASSERT_EQ(simlist_delete_range(&list, at, at + more), 0);
                contents.erase(place, place + static_cast<std::ptrdiff_t>(more) + 1);
            } else {
                spares += 1;
                ASSERT_EQ(simlist_extract_at(&list, at), *place);
                contents.erase(place);
            }
            ASSERT_EQ(list.spare_count, std::min<std::size_t>(spares, 5));
            ASSERT_TRUE(i % 97 != 0 || contentsOf(list) == contents) << i;
        }
        EXPECT_EQ(simlist_clear(&list), 0);
        EXPECT_EQ(contentsOf(list), Contents{});
        const Contents all = fill(&list, 900);
        EXPECT_EQ(contentsOf(list), all);
    }
}

} // namespace
} // namespace kelconf
