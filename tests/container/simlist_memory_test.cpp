// The list while memory is short, and the calls that must not allocate at all. A program of its
// own: it replaces operator new, and so does valgrind, under which nothing here would fail.
#include "container/list_check.h"
#include "container/simlist_types.h"

#include <new>

namespace {
int allocations = 0;
int failing_allocation = 0; // the one that returns null; 0: none

void countNew(int failing) {
    allocations = 0;
    failing_allocation = failing;
}
} // namespace

// The nothrow forms are what the list uses. The memory is of the usual ones, to fit each delete.
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return ++allocations == failing_allocation ? nullptr : operator new(size);
}
void* operator new[](std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return ++allocations == failing_allocation ? nullptr : operator new[](size);
}

namespace kelconf {
namespace {

TEST(SimlistMemory, SpareRecordsAreReusedWithoutAllocating) {
    for (const std::size_t count : {5U, 9U, 300U}) {
        ScopedList list;
        fill(&list, count);
        for (std::uint32_t i = 0; i < 5; ++i) {
            ASSERT_EQ(simlist_delete_at(&list, i % 2 == 0 ? 0 : list.count - 1), 0);
        }
        countNew(0);
        for (std::uint32_t i = 0; i < 5; ++i) {
            ASSERT_EQ(simlist_insert_at(&list, &list, i % 2 == 0 ? list.count : 0), 1);
        }
        simlist_clear(&list);
        fill(&list, 5); // as the lists of one request after the other
        EXPECT_EQ(allocations, 0) << count;
    }
}

TEST(SimlistMemory, AFailedAllocationLeavesTheListAsItWas) {
    int most = 0;
    for (std::uint32_t count = 0; count < 70; ++count) {
        for (const std::uint32_t position : {0U, count}) {
            bool added = false;
            for (int failing = 1; !added; ++failing) {
                ScopedList list;
                const Contents all = fill(&list, count);
                countNew(failing);
                added = simlist_insert_at(&list, &list, position) == 1;
                EXPECT_EQ(added, allocations < failing);
                most = std::max(most, allocations);
                countNew(0);
                EXPECT_TRUE(added || simlist_insert_at(&list, &list, position) == 1);
                EXPECT_EQ(simlist_extract_at(&list, position), &list);
                EXPECT_EQ(contentsOf(list), all);
            }
        }
    }
    EXPECT_EQ(most, 2) << "a record and a place for it";
}

TEST(SimlistMemory, InitSortAndConcatReportIt) {
    ScopedList source;
    const Contents all = fill(&source, 600);
    simlist_attributes_comparator(&source, simlist_comparator_uint64_t);
    countNew(1);
    EXPECT_EQ(simlist_sort(&source, 1), -1);
    simlist made{};
    for (const int failing : {1, 2, 3, 4, 5, 6, 100, 1200}) {
        countNew(failing);
        EXPECT_EQ(simlist_concat(&source, &source, &made), -1) << failing;
    }
    countNew(0);
    EXPECT_EQ(contentsOf(source), all);
}

} // namespace
} // namespace kelconf
