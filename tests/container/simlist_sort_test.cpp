#include "container/list_check.h"
#include "container/simlist_types.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <numeric>
#include <random>

namespace kelconf {
namespace {

using Ints = std::vector<int>;
using Limits = std::numeric_limits<std::int32_t>;

std::uint64_t comparisons = 0;
const void* first_pivot = nullptr; // the second of the first two that were compared

std::int32_t compareInts(const void* a, const void* b) {
    first_pivot = comparisons++ == 0 ? b : first_pivot;
    return -simlist_comparator_int32_t(a, b); // direction -1 sorts upwards
}

// The most extreme results, whose product with a direction overflows 32 bits.
std::int32_t compareExtremes(const void* a, const void* b) {
    const std::int32_t order = compareInts(a, b);
    return order == 0 ? 0 : (order > 0 ? Limits::max() : Limits::min());
}

std::int32_t compareRandomly(const void* /*a*/, const void* /*b*/) {
    return std::rand() % 3 - 1;
}

Ints sortedBy(Ints& values, simlist_comparator comparator, std::int32_t direction) {
    ScopedList list;
    EXPECT_EQ(simlist_sort(&list, direction), -1) << "without a comparator";
    simlist_attributes_comparator(&list, comparator);
    for (int& value : values) {
        EXPECT_EQ(simlist_append(&list, &value), 1);
    }
    const simlist_element* first = list.head->next;
    comparisons = 0;
    EXPECT_EQ(simlist_sort(&list, direction), 0);
    EXPECT_EQ(list.head->next, first) << "records stay in place";
    Ints result;
    for (const void* data : contentsOf(list)) {
        result.push_back(*static_cast<const int*>(data));
    }
    return result;
}

// Sorts and holds the comparisons against n log n. They bound the stack too: a recursion of
// depth d has made d * d / 2 of them.
void expectSorted(Ints values, simlist_comparator comparator, std::int32_t direction) {
    Ints expected = values;
    std::sort(expected.begin(), expected.end());
    if (direction > 0) {
        std::reverse(expected.begin(), expected.end());
    }
    EXPECT_EQ(sortedBy(values, comparator, direction), expected);
    const auto count = static_cast<double>(values.size());
    EXPECT_LE(static_cast<double>(comparisons), 6 * count * std::log2(count + 1));
}

Ints randomInts(std::size_t count, unsigned different) {
    std::mt19937 random{5};
    Ints values(count);
    std::generate(values.begin(), values.end(),
                  [&] { return static_cast<int>(random() % different); });
    return values;
}

TEST(SimlistSort, SelectsUpToTwentyFourAndTakesAnyPivotAbove) {
    for (std::size_t count = 0; count <= 60; ++count) {
        SCOPED_TRACE(count);
        Ints values = randomInts(count, count % 2 == 0 ? 3 : 1000);
        expectSorted(values, compareExtremes, Limits::min());
        expectSorted(values, compareExtremes, Limits::max());
        for (unsigned seed = 0; seed < 100; ++seed) {
            std::srand(seed);
            EXPECT_EQ(sortedBy(values, compareInts, 0), values) << "direction 0 moves nothing";
            const int next = std::rand(); // only partitions take a random pivot
            std::srand(seed);
            const auto taken = static_cast<unsigned>(std::rand());
            EXPECT_EQ(static_cast<int>(taken) == next, count <= 24);
            // What comes first is compared with the pivot, unless it is the pivot itself.
            const std::size_t pivot = count > 24 ? taken % count : 0;
            EXPECT_TRUE(pivot == 0 || first_pivot == &values[pivot]);
        }
    }
}

TEST(SimlistSort, OrdersLongListsOfEveryShape) {
    Ints rising(20000);
    std::iota(rising.begin(), rising.end(), 0);
    for (const Ints& values :
         {rising, Ints(20000, 4), randomInts(20000, 1U << 30U), randomInts(20000, 3)}) {
        expectSorted(values, compareInts, -1);
        expectSorted(values, compareInts, 1);
    }
    Ints result = sortedBy(rising, compareRandomly, -1);
    std::sort(result.begin(), result.end());
    EXPECT_EQ(result, rising) << "a comparator that contradicts itself loses nothing";
}

// An opponent that decides the order while the sort asks: the values are undecided at first,
// and whatever is compared often (a pivot) becomes the next smallest. It defeats any choice of
// pivots. When the sort is done the order is decided, and is an input that defeats the same
// pivots again: nobody seeds rand().
constexpr int kUndecided = 20000;
int decided = 0;
const int* candidate = nullptr;

std::int32_t compareAgainst(const void* a, const void* b) {
    auto* left = static_cast<int*>(const_cast<void*>(a));
    auto* right = static_cast<int*>(const_cast<void*>(b));
    if (*left == kUndecided && *right == kUndecided) {
        *(left == candidate ? left : right) = decided++;
    }
    candidate = *left == kUndecided ? left : *right == kUndecided ? right : candidate;
    return compareInts(a, b);
}

TEST(SimlistSort, StandsAnInputBuiltAgainstItsPivots) {
    for (const std::int32_t direction : {-1, 1}) {
        Ints values(kUndecided, kUndecided);
        decided = 0;
        std::srand(1); // as if it was never called
        sortedBy(values, compareAgainst, direction);
        std::srand(1);
        expectSorted(values, compareInts, direction);
    }
}

} // namespace
} // namespace kelconf
