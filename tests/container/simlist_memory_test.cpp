// The list while memory is short, and the calls that must not allocate at all. A program of its
// own: it replaces operator new, and so does valgrind, under which nothing here would fail.
#include "container/counted_new.h"
#include "container/list_check.h"
#include "container/simlist.h"
#include "container/simlist_types.h"

#include <memory>
#include <new>

namespace kelconf {
namespace {

TEST(SimlistMemory, TheInjectionWorks) {
    countNew(2);
    const std::unique_ptr<int> first{new (std::nothrow) int{1}};
    const std::unique_ptr<int> second{new (std::nothrow) int{2}};
    ASSERT_EQ(stopCountingNew(), 2) << "operator new is not the counted one";
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(second, nullptr);
}

TEST(SimlistMemory, SpareRecordsAreReusedWithoutAllocating) {
    for (const std::size_t count : {9U, 515U, 1029U}) { // also over an edge of the index's blocks
        ScopedList list;
        fill(list, count);
        for (std::uint32_t i = 0; i < kSimlistSpares; ++i) {
            ASSERT_EQ(simlist_delete_at(&list, i % 2 == 0 ? 0 : list.count - 1), 0);
        }
        countNew(0);
        for (std::uint32_t i = 0; i < kSimlistSpares; ++i) {
            ASSERT_EQ(simlist_insert_at(&list, numbered(i), i % 2 == 0 ? list.count : 0), 1);
        }
        EXPECT_EQ(stopCountingNew(), 0) << count;
    }
}

TEST(SimlistMemory, ListsOfARequestStopAllocating) {
    ScopedList list;
    fill(list, 5);
    simlist_clear(&list);
    countNew(0);
    fill(list, 5);
    simlist_clear(&list);
    EXPECT_EQ(stopCountingNew(), 0);
}

TEST(SimlistMemory, AFailedAllocationLeavesTheListAsItWas) {
    // At these counts the next element needs a record and, in turn, a first, a larger or a
    // further block of the index, or a larger directory of blocks.
    for (const std::size_t count : {0U, 8U, 256U, 512U, 1024U, 2048U}) {
        for (const bool at_front : {true, false}) {
            for (int failing = 1;; ++failing) {
                SCOPED_TRACE(::testing::Message()
                             << count << " front " << at_front << " call " << failing);
                ScopedList list;
                fill(list, count);
                countNew(failing);
                const std::uint32_t position = at_front ? 0 : list.count;
                const std::int32_t result = simlist_insert_at(&list, numbered(7), position);
                if (stopCountingNew() < failing) {
                    ASSERT_EQ(result, 1);
                    break; // every call has failed once
                }
                ASSERT_EQ(result, -1);
                ASSERT_TRUE(isSound(list, numbers(1, count)));
                ASSERT_EQ(simlist_insert_at(&list, numbered(7), position), 1);
            }
        }
    }
}

TEST(SimlistMemory, InitSortAndConcatReportIt) {
    ScopedList source;
    fill(source, 600);
    simlist_attributes_comparator(&source, simlist_comparator_uint64_t);
    countNew(1);
    EXPECT_EQ(simlist_sort(&source, 1), -1);
    stopCountingNew();
    EXPECT_TRUE(isSound(source, numbers(1, 600)));
    simlist made{};
    for (const int failing : {1, 2, 3, 4}) {
        countNew(failing);
        EXPECT_EQ(simlist_init(&made), -1) << failing;
    }
    for (const int failing : {1, 5, 6, 100, 1200}) {
        countNew(failing);
        EXPECT_EQ(simlist_concat(&source, &source, &made), -1) << failing;
    }
    stopCountingNew();
}

} // namespace
} // namespace kelconf
