#include "container/list_check.h"
#include "container/simlist_types.h"

#include <cstdlib>
#include <limits>
#include <thread>
#include <utility>

namespace kelconf {
namespace {

using Results = std::vector<std::int32_t>;
using Found = std::vector<const void*>;

std::size_t hugeSize(const void* /*element*/) {
    return std::numeric_limits<std::size_t>::max() / 4;
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

TEST_F(Simlist, HasNothingOutside) {
    for (const std::uint32_t count : {0U, 3U}) {
        fill(list, count);
        for (const std::uint32_t outside : {count, count + 1, 0x7fffffffU, 0xffffffffU}) {
            SCOPED_TRACE(outside);
            EXPECT_EQ(simlist_get_at(&list, outside), nullptr);
            EXPECT_EQ(simlist_extract_at(&list, outside), nullptr);
            EXPECT_EQ(simlist_delete_at(&list, outside), -1);
            EXPECT_EQ(simlist_delete_range(&list, 0, outside), -1);
            EXPECT_EQ(simlist_insert_at(&list, &list, outside), outside == count ? 1 : -1);
            EXPECT_EQ(simlist_delete_at(&list, count), outside == count ? 0 : -1);
        }
        EXPECT_EQ(simlist_delete_range(&list, 2, 1), -1);
        EXPECT_EQ(simlist_empty(&list), count == 0 ? 1 : 0);
        EXPECT_TRUE(isSound(list, numbers(1, count)));
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

TEST_F(Simlist, FindsByComparatorOrIdentityOrSeeker) {
    const std::vector<int> values{4, 9, 4, 1, 9};
    const int nine = 9;
    simlist_attributes_comparator(&list, simlist_comparator_int32_t);
    EXPECT_EQ(simlist_get_max(&list), nullptr);
    for (const int& value : values) {
        simlist_append(&list, &value);
    }
    EXPECT_EQ(simlist_get_max(&list), &values[1]) << "the first of equal ones stays the best";
    EXPECT_EQ(simlist_get_min(&list), &values[3]);
    EXPECT_EQ((Results{simlist_contains(&list, &nine), simlist_delete(&list, &nine),
                       simlist_locate(&list, &nine), simlist_delete(&list, &nine),
                       simlist_delete(&list, &nine), simlist_contains(&list, &nine)}),
              (Results{1, 0, 3, 0, -1, 0}));
    simlist_attributes_comparator(&list, nullptr);
    EXPECT_EQ(simlist_locate(&list, &values[2]), 1) << "without a comparator only identity counts";
    EXPECT_EQ((Found{simlist_get_max(&list), simlist_get_min(&list), simlist_seek(&list, &nine)}),
              Found(3));
    simlist_attributes_seeker(&list, isNumber);
    EXPECT_EQ(simlist_seek(&list, &values[2]), &values[2]);
    EXPECT_EQ(simlist_seek(&list, &nine), nullptr);
}

TEST_F(Simlist, ConcatSharesDataAndClearsAttributes) {
    fill(list, 700);
    simlist_attributes_seeker(&list, isNumber);
    simlist both{};
    for (int round = 0; round < 2; ++round) { // what was destroyed can be made anew
        ASSERT_EQ(simlist_concat(&list, &list, &both), 0);
        EXPECT_EQ(both.seeker, nullptr);
        EXPECT_EQ(simlist_delete_range(&both, 0, 699), 0);
        EXPECT_TRUE(isSound(both, numbers(1, 700)));
        simlist_destroy(&both);
    }
    EXPECT_TRUE(isSound(list, numbers(1, 700)));
}

TEST_F(Simlist, ChangesNothingDuringAnIteration) {
    fill(list, 2);
    simlist_attributes_comparator(&list, simlist_comparator_int32_t);
    EXPECT_EQ(simlist_iterator_next(&list), nullptr);
    EXPECT_EQ(
        (Results{simlist_iterator_hasnext(&list), simlist_iterator_stop(&list),
                 simlist_iterator_start(&list), simlist_iterator_start(&list),
                 simlist_append(&list, "x"), simlist_delete_at(&list, 0),
                 simlist_delete_range(&list, 0, 1), simlist_clear(&list), simlist_sort(&list, 1)}),
        (Results{0, 0, 1, 0, -1, -1, -1, -1, -1}));
    EXPECT_EQ(simlist_fetch(&list), nullptr);
    for (const void* expected : Found{numbered(1), numbered(2), nullptr, nullptr}) {
        EXPECT_EQ(simlist_iterator_hasnext(&list), expected == nullptr ? 0 : 1);
        EXPECT_EQ(simlist_iterator_next(&list), expected) << "past the end it stays there";
    }
    EXPECT_EQ(simlist_iterator_stop(&list), 1);
    EXPECT_EQ(simlist_append(&list, numbered(3)), 1);
    EXPECT_TRUE(isSound(list, numbers(1, 3)));
    simlist_iterator_start(&list); // destroying does not lose the elements of an open iteration
}

TEST_F(Simlist, HashFollowsOrderCountAndContent) {
    const std::vector<std::uint32_t> values{1, 2};
    std::uint32_t hash = 77; // what the variable held before must not matter
    EXPECT_EQ(simlist_hash(&list, &hash), -1);
    simlist_attributes_hash_computer(&list, simlist_hashcomputer_uint32_t);
    simlist_append(&list, values.data());
    simlist_append(&list, &values[1]);
    EXPECT_EQ(simlist_hash(&list, &hash), 0);
    EXPECT_EQ(hash, 418U); // 104 + (104 ^ 1) + 209 % 2 = 210, 210 + (210 ^ 2) + 418 % 2
}

TEST_F(Simlist, SharedByReadersWithoutALock) {
    fill(list, 3000);
    const auto read = [this] { EXPECT_TRUE(isSound(list, numbers(1, 3000))); };
    const std::jthread other{read};
    read();
}

} // namespace
} // namespace kelconf
