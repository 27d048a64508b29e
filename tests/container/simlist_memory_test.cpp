// The list while memory is short, and the calls that must not allocate at all. A program of its
// own: it replaces operator new, and so does valgrind, under which nothing here would fail.
#include "container/list_check.h"
#include "container/simlist_types.h"

#include <new>

namespace {

int allocations = 0;
int failing_allocation = 0; // which one from countNew on returns null; 0: none

void countNew(int failing) {
    allocations = 0;
    failing_allocation = failing;
}

// Allocations since countNew; none fails from now on.
int stopCountingNew() {
    failing_allocation = 0;
    return allocations;
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
    for (const std::size_t count : {5U, 9U, 515U, 1029U}) { // also over an edge of index blocks
        ScopedList list;
        fill(list, count);
        for (std::uint32_t i = 0; i < kSimlistSpares; ++i) {
            ASSERT_EQ(simlist_delete_at(&list, i % 2 == 0 ? 0 : list.count - 1), 0);
        }
        countNew(0);
        for (std::uint32_t i = 0; i < kSimlistSpares; ++i) {
            ASSERT_EQ(simlist_insert_at(&list, numbered(i), i % 2 == 0 ? list.count : 0), 1);
        }
        simlist_clear(&list);
        fill(list, kSimlistSpares); // as the lists of one request after the other
        EXPECT_EQ(stopCountingNew(), 0) << count;
    }
}

TEST(SimlistMemory, AFailedAllocationLeavesTheListAsItWas) {
    // The next element needs a record and a first, larger or further block, or a directory too.
    for (const std::uint32_t count : {0U, 8U, 256U, 512U, 1024U, 2048U}) {
        for (const std::uint32_t position : {0U, count}) {
            bool added = false;
            for (int failing = 1; !added; ++failing) {
                SCOPED_TRACE(::testing::Message() << count << ", allocation " << failing);
                ScopedList list;
                fill(list, count);
                countNew(failing);
                added = simlist_insert_at(&list, &list, position) == 1;
                EXPECT_EQ(added, stopCountingNew() < failing);
                EXPECT_TRUE(!added || failing > 2) << "a record and a block are allocated";
                EXPECT_TRUE(added || isSound(list, numbers(1, count)));
                EXPECT_TRUE(added || simlist_insert_at(&list, &list, position) == 1);
                EXPECT_EQ(simlist_extract_at(&list, position), &list);
                EXPECT_TRUE(isSound(list, numbers(1, count)));
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
    simlist made{};
    for (const int failing : {1, 2, 3, 4, 5, 6, 100, 1200}) {
        countNew(failing);
        EXPECT_EQ(simlist_concat(&source, &source, &made), -1) << failing;
    }
    stopCountingNew();
    EXPECT_TRUE(isSound(source, numbers(1, 600)));
}

} // namespace
} // namespace kelconf
