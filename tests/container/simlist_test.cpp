#include "container/list_check.h"
#include "container/simlist.h"
#include "container/simlist_types.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

namespace kelconf {
namespace {

constexpr std::uint32_t kBeforeFirst = std::numeric_limits<std::uint32_t>::max(); // -1, signed

struct Freer {
    void operator()(void* memory) const { std::free(memory); }
};

struct Record {
    const char* name;
    int value;
};

std::size_t recordSize(const void* /*element*/) {
    return sizeof(Record);
}

std::size_t hugeSize(const void* /*element*/) {
    return std::numeric_limits<std::size_t>::max() / 4;
}

std::int32_t compareNumbers(const void* a, const void* b) {
    const auto left = reinterpret_cast<std::uintptr_t>(a);
    const auto right = reinterpret_cast<std::uintptr_t>(b);
    return static_cast<std::int32_t>(left > right) - static_cast<std::int32_t>(left < right);
}

std::int32_t isNumber(const void* element, const void* indicator) {
    return element == indicator ? 7 : 0;
}

TEST(SimlistLife, StartsEmptyWithEveryAttributeClear) {
    ScopedList list;
    EXPECT_TRUE(isSound(list, {}));
    EXPECT_EQ(list.spare_count, 0U);
    EXPECT_EQ(list.iterator_active, 0);
    EXPECT_EQ(list.copy_data, 0);
    EXPECT_TRUE(list.comparator == nullptr && list.seeker == nullptr && list.meter == nullptr);
    EXPECT_TRUE(list.hash_computer == nullptr && list.serializer == nullptr &&
                list.unserializer == nullptr);
    EXPECT_EQ(list.head->data, nullptr);
    EXPECT_EQ(list.tail->data, nullptr);
}

TEST(SimlistLife, RefusesANullList) {
    EXPECT_EQ(simlist_init(nullptr), -1);
    EXPECT_EQ(simlist_attributes_comparator(nullptr, compareNumbers), -1);
    EXPECT_EQ(simlist_attributes_seeker(nullptr, isNumber), -1);
    EXPECT_EQ(simlist_attributes_copy(nullptr, recordSize, 1), -1);
    EXPECT_EQ(simlist_attributes_hash_computer(nullptr, nullptr), -1);
    EXPECT_EQ(simlist_attributes_serializer(nullptr, nullptr), -1);
    EXPECT_EQ(simlist_attributes_unserializer(nullptr, nullptr), -1);
}

TEST(SimlistLife, DestroyedListCanBeUsedAfterANewInit) {
    simlist list{};
    for (const std::size_t count : {3U, 2000U}) {
        ASSERT_EQ(simlist_init(&list), 0);
        fill(list, count);
        EXPECT_TRUE(isSound(list, numbers(1, count)));
        simlist_destroy(&list);
    }
}

TEST(SimlistPositions, EmptyListHasNoElementAnywhere) {
    ScopedList list;
    EXPECT_EQ(simlist_get_at(&list, 0), nullptr);
    EXPECT_EQ(simlist_get_at(&list, 1), nullptr);
    EXPECT_EQ(simlist_get_at(&list, kBeforeFirst), nullptr);
    EXPECT_EQ(simlist_delete_at(&list, 0), -1);
    EXPECT_EQ(simlist_delete_range(&list, 0, 0), -1);
    EXPECT_EQ(simlist_extract_at(&list, 0), nullptr);
    EXPECT_EQ(simlist_fetch(&list), nullptr);
    EXPECT_EQ(simlist_insert_at(&list, numbered(1), 1), -1);
    EXPECT_EQ(simlist_clear(&list), 0);
    EXPECT_EQ(simlist_empty(&list), 1);
}

TEST(SimlistPositions, OutsideTheListThereIsNothing) {
    ScopedList list;
    fill(list, 3);
    for (const std::uint32_t outside : {3U, 4U, 0x7fffffffU, 0x80000000U, kBeforeFirst}) {
        SCOPED_TRACE(outside);
        EXPECT_EQ(simlist_get_at(&list, outside), nullptr);
        EXPECT_EQ(simlist_delete_at(&list, outside), -1);
        EXPECT_EQ(simlist_extract_at(&list, outside), nullptr);
        EXPECT_EQ(simlist_delete_range(&list, 0, outside), -1);
    }
    EXPECT_EQ(simlist_insert_at(&list, numbered(9), 4), -1);
    EXPECT_EQ(simlist_insert_at(&list, numbered(9), kBeforeFirst), -1);
    EXPECT_EQ(simlist_delete_range(&list, 2, 1), -1);
    EXPECT_EQ(simlist_record_at(&list, -1), list.head);
    EXPECT_EQ(simlist_record_at(&list, 3), list.tail);
    EXPECT_EQ(simlist_record_at(&list, -2), nullptr);
    EXPECT_EQ(simlist_record_at(&list, 4), nullptr);
    EXPECT_TRUE(isSound(list, numbers(1, 3)));
    EXPECT_EQ(simlist_empty(&list), 0);
}

TEST(SimlistPositions, RangesAreTakenOutWhereverTheyLie) {
    struct Case {
        std::uint32_t count, start, end;
    };
    const std::array cases{Case{1, 0, 0},         Case{4, 0, 3},          Case{4, 1, 2},
                           Case{5, 0, 1},         Case{5, 3, 4},          Case{3000, 0, 2999},
                           Case{3000, 0, 1600},   Case{3000, 100, 101},   Case{3000, 2900, 2901},
                           Case{3000, 700, 2200}, Case{3000, 1500, 2999}, Case{9000, 4400, 4405}};
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.count << ": " << c.start << " to " << c.end);
        ScopedList list;
        fill(list, c.count);
        std::vector<void*> expected = numbers(1, c.count);
        ASSERT_EQ(simlist_delete_range(&list, c.start, c.end), 0);
        expected.erase(expected.begin() + c.start, expected.begin() + c.end + 1);
        ASSERT_TRUE(isSound(list, expected));
        ASSERT_EQ(simlist_prepend(&list, numbered(1)), 1); // the index still takes elements
        ASSERT_EQ(simlist_append(&list, numbered(2)), 1);
        std::vector<void*> framed(expected.size() + 2, numbered(1));
        std::copy(expected.begin(), expected.end(), framed.begin() + 1);
        framed.back() = numbered(2);
        EXPECT_TRUE(isSound(list, framed));
    }
}

TEST(SimlistPool, KeepsFiveRecordsAsAStack) {
    ScopedList list;
    fill(list, 9);
    std::vector<simlist_element*> removed;
    for (std::uint32_t i = 0; i < 8; ++i) {
        removed.push_back(list.head->next);
        ASSERT_EQ(simlist_delete_at(&list, 0), 0);
        ASSERT_EQ(list.spare_count, std::min(i + 1, kSimlistSpares));
    }
    for (std::uint32_t i = kSimlistSpares; i-- > 0;) {
        ASSERT_EQ(simlist_append(&list, numbered(i)), 1);
        EXPECT_EQ(list.tail->prev, removed[i]) << "the record put back last is taken first";
        EXPECT_EQ(list.spare_count, i);
    }
    ASSERT_EQ(simlist_clear(&list), 0);
    EXPECT_EQ(list.spare_count, kSimlistSpares);
    EXPECT_TRUE(isSound(list, {}));
}

TEST(SimlistCopies, BelongToTheListUntilExtracted) {
    ScopedList list;
    ASSERT_EQ(simlist_attributes_copy(&list, recordSize, 1), 0);
    const std::unique_ptr<char, Freer> name{strdup("ipcam.video.1.bitrate")};
    Record record{name.get(), 1};
    ASSERT_EQ(simlist_append(&list, &record), 1);
    ASSERT_EQ(simlist_append(&list, &record), 1);
    record.value = 2;
    auto* stored = static_cast<Record*>(simlist_get_at(&list, 0));
    ASSERT_NE(stored, &record);
    EXPECT_EQ(stored->value, 1) << "the caller's record is not the stored one";
    stored->value = 3;
    EXPECT_EQ(static_cast<Record*>(simlist_get_at(&list, 0))->value, 3);
    const std::unique_ptr<void, Freer> extracted{simlist_extract_at(&list, 0)};
    ASSERT_EQ(simlist_delete_at(&list, 0), 0);
    EXPECT_EQ(static_cast<Record*>(extracted.get())->value, 3);
    EXPECT_STREQ(static_cast<Record*>(extracted.get())->name, "ipcam.video.1.bitrate");
}

TEST(SimlistCopies, AreFreedByEveryKindOfRemoval) {
    ScopedList list; // what is left is found by the leak checkers
    ASSERT_EQ(simlist_attributes_copy(&list, recordSize, 1), 0);
    simlist_attributes_comparator(&list, simlist_comparator_uint64_t);
    const Record record{nullptr, 0};
    for (int i = 0; i < 40; ++i) {
        ASSERT_EQ(simlist_append(&list, &record), 1);
    }
    EXPECT_EQ(simlist_delete_range(&list, 3, 12), 0);
    EXPECT_EQ(simlist_delete(&list, &record), 0);
    EXPECT_EQ(simlist_append(&list, nullptr), 1) << "stored as NULL, there is nothing to copy";
    EXPECT_EQ(simlist_delete_at(&list, list.count - 1), 0);
    EXPECT_EQ(simlist_clear(&list), 0);
    EXPECT_EQ(simlist_append(&list, &record), 1);
}

TEST(SimlistCopies, RefuseWhatCannotBeCopied) {
    ScopedList list;
    ASSERT_EQ(simlist_attributes_copy(&list, hugeSize, 0), 0);
    EXPECT_EQ(simlist_attributes_copy(&list, nullptr, 1), -1);
    EXPECT_EQ(list.meter, &hugeSize);
    EXPECT_EQ(list.copy_data, 0);
    ASSERT_EQ(simlist_attributes_copy(&list, hugeSize, 1), 0);
    EXPECT_EQ(simlist_append(&list, "x"), -1);
    EXPECT_TRUE(isSound(list, {}));
}

TEST(SimlistContent, FindsByComparatorOrIdentity) {
    ScopedList list;
    const std::array<int, 5> values{4, 9, 4, 1, 9};
    for (const int& value : values) {
        ASSERT_EQ(simlist_append(&list, &value), 1);
    }
    const int nine = 9;
    EXPECT_EQ(simlist_locate(&list, &nine), -1) << "without a comparator only identity counts";
    EXPECT_EQ(simlist_locate(&list, &values[4]), 4);
    EXPECT_EQ(simlist_get_max(&list), nullptr);
    EXPECT_EQ(simlist_get_min(&list), nullptr);
    simlist_attributes_comparator(&list, simlist_comparator_int32_t);
    EXPECT_EQ(simlist_locate(&list, &nine), 1);
    EXPECT_EQ(simlist_contains(&list, &nine), 1);
    EXPECT_EQ(simlist_get_max(&list), &values[1]) << "the first of equal ones stays the best";
    EXPECT_EQ(simlist_get_min(&list), &values[3]);
    EXPECT_EQ(simlist_delete(&list, &nine), 0);
    EXPECT_EQ(simlist_delete(&list, &nine), 0);
    EXPECT_EQ(simlist_delete(&list, &nine), -1);
    EXPECT_EQ(simlist_contains(&list, &nine), 0);
    simlist_clear(&list);
    EXPECT_EQ(simlist_get_max(&list), nullptr);
}

TEST(SimlistContent, SeeksWithTheSeekerOnly) {
    ScopedList list;
    fill(list, 4);
    EXPECT_EQ(simlist_seek(&list, numbered(3)), nullptr);
    simlist_attributes_seeker(&list, isNumber);
    EXPECT_EQ(simlist_seek(&list, numbered(3)), numbered(3));
    EXPECT_EQ(simlist_seek(&list, numbered(5)), nullptr);
}

TEST(SimlistContent, ConcatSharesDataAndClearsAttributes) {
    ScopedList first;
    ScopedList second;
    fill(first, 700);
    simlist_append(&second, numbered(701));
    simlist_attributes_comparator(&first, compareNumbers);
    simlist both{};
    EXPECT_EQ(simlist_concat(nullptr, &second, &both), -1);
    EXPECT_EQ(simlist_concat(&first, nullptr, &both), -1);
    EXPECT_EQ(simlist_concat(&first, &second, nullptr), -1);
    EXPECT_EQ(simlist_concat(&first, &second, &first), -1);
    EXPECT_EQ(simlist_concat(&first, &second, &second), -1);
    EXPECT_TRUE(isSound(first, numbers(1, 700)));
    ASSERT_EQ(simlist_concat(&first, &second, &both), 0);
    EXPECT_TRUE(isSound(both, numbers(1, 701)));
    EXPECT_EQ(both.comparator, nullptr);
    simlist_destroy(&both);
    EXPECT_TRUE(isSound(first, numbers(1, 700)));
}

TEST(SimlistIteration, BlocksEveryChangeUntilStopped) {
    ScopedList list;
    fill(list, 2);
    simlist_attributes_comparator(&list, compareNumbers);
    EXPECT_EQ(simlist_iterator_next(&list), nullptr);
    EXPECT_EQ(simlist_iterator_hasnext(&list), 0);
    EXPECT_EQ(simlist_iterator_stop(&list), 0);
    ASSERT_EQ(simlist_iterator_start(&list), 1);
    EXPECT_EQ(simlist_iterator_start(&list), 0);
    EXPECT_EQ(simlist_append(&list, numbered(9)), -1);
    EXPECT_EQ(simlist_prepend(&list, numbered(9)), -1);
    EXPECT_EQ(simlist_delete_at(&list, 0), -1);
    EXPECT_EQ(simlist_delete_range(&list, 0, 1), -1);
    EXPECT_EQ(simlist_extract_at(&list, 0), nullptr);
    EXPECT_EQ(simlist_fetch(&list), nullptr);
    EXPECT_EQ(simlist_clear(&list), -1);
    EXPECT_EQ(simlist_sort(&list, 1), -1);
    std::vector<void*> seen;
    while (simlist_iterator_hasnext(&list) == 1) {
        seen.push_back(simlist_iterator_next(&list));
    }
    EXPECT_EQ(seen, numbers(1, 2));
    EXPECT_EQ(simlist_iterator_next(&list), nullptr);
    EXPECT_EQ(simlist_iterator_next(&list), nullptr) << "past the end it stays there";
    EXPECT_EQ(simlist_iterator_stop(&list), 1);
    EXPECT_EQ(list.iterator_position, 0U);
    EXPECT_EQ(simlist_append(&list, numbered(3)), 1);
    EXPECT_TRUE(isSound(list, numbers(1, 3)));
    simlist_iterator_start(&list); // destroying does not lose the elements of an open iteration
}

TEST(SimlistHash, FollowsOrderCountAndContent) {
    const std::array<std::uint32_t, 3> values{1, 2, 3};
    ScopedList list;
    std::uint32_t first = 1;
    EXPECT_EQ(simlist_hash(&list, &first), -1);
    simlist_attributes_hash_computer(&list, simlist_hashcomputer_uint32_t);
    EXPECT_EQ(simlist_hash(&list, &first), 0);
    EXPECT_EQ(first, 100U);
    for (const std::uint32_t& value : values) {
        simlist_append(&list, &value);
    }
    std::uint32_t second = 77; // what the variable held before must not matter
    ASSERT_EQ(simlist_hash(&list, &first), 0);
    ASSERT_EQ(simlist_hash(&list, &second), 0);
    EXPECT_EQ(first, second);
    simlist_append(&list, simlist_fetch(&list));
    ASSERT_EQ(simlist_hash(&list, &second), 0);
    EXPECT_NE(first, second);
}

TEST(SimlistThreads, ReadersShareAListWithoutALock) {
    ScopedList list;
    fill(list, 3000);
    const auto read = [&list](bool& right) {
        right = true;
        for (std::uint32_t i = 0; i < simlist_size(&list); ++i) {
            right = right && simlist_get_at(&list, i) == numbered(i + 1);
        }
    };
    bool there = false;
    bool here = false;
    std::thread other{read, std::ref(there)};
    read(here);
    other.join();
    EXPECT_TRUE(here && there);
}

} // namespace
} // namespace kelconf
