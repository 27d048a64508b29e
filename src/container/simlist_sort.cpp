// Sorting: quicksort with a random pivot, selection for short ranges.
//
// The data pointers are sorted in a flat array, where a partition runs through neighbouring
// memory, and written back into the records in one pass.
//
// The pivots come from rand(), which nobody seeds, so they are known in advance and an input
// can be built on which every pivot is a bad one. Such an input would take quadratic time and
// a stack as deep as the list is long. So each range has a budget of partitions; a range that
// has used it up is sorted by a heap: O(n log n) comparisons and O(log n) stack for any input.
#include "container/simlist_store.h"

#include <algorithm>
#include <bit>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

namespace kelconf {

namespace {

// The order that a direction makes of a comparator.
struct Order {
    simlist_comparator comparator;
    std::int64_t factor; // the direction negated, in 64 bits: no product overflows

    [[nodiscard]] bool goesAfter(const void* a, const void* b) const {
        return comparator(a, b) * factor > 0;
    }
    [[nodiscard]] bool goesBefore(const void* a, const void* b) const {
        return comparator(a, b) * factor < 0;
    }
};

void selectionSort(void** items, std::uint32_t count, const Order& order) {
    for (std::uint32_t r = 0; r + 1 < count; ++r) {
        std::uint32_t m = r;
        for (std::uint32_t c = r + 1; c < count; ++c) {
            if (order.goesAfter(items[m], items[c])) {
                m = c;
            }
        }
        std::swap(items[r], items[m]);
    }
}

// Both stay within the range even when the comparator contradicts itself.
void heapSort(void** items, std::uint32_t count, const Order& order) {
    const auto before = [&order](const void* a, const void* b) { return order.goesBefore(a, b); };
    std::make_heap(items, items + count, before);
    std::sort_heap(items, items + count, before);
}

// Moves what goes after the pivot, among [left, pivot), behind it. Returns the pivot's new place.
std::uint32_t pullPivotDown(void** items, std::uint32_t left, std::uint32_t pivot,
                            const Order& order) {
    while (left != pivot) {
        if (!order.goesAfter(items[left], items[pivot])) {
            ++left;
            continue;
        }
        void* moved = items[left];
        items[left] = items[pivot - 1];
        items[pivot - 1] = items[pivot];
        items[pivot] = moved;
        --pivot;
    }
    return pivot;
}

// Moves what goes before the pivot, among (pivot, right], ahead of it. Returns the new place.
std::uint32_t pushPivotUp(void** items, std::uint32_t pivot, std::uint32_t right,
                          const Order& order) {
    while (right != pivot) {
        if (!order.goesBefore(items[right], items[pivot])) {
            --right;
            continue;
        }
        void* moved = items[right];
        items[right] = items[pivot + 1];
        items[pivot + 1] = items[pivot];
        items[pivot] = moved;
        ++pivot;
    }
    return pivot;
}

// Splits the range around the element at `pivot`; returns where that element ends up.
std::uint32_t partition(void** items, std::uint32_t count, std::uint32_t pivot,
                        const Order& order) {
    std::uint32_t left = 0;
    std::uint32_t right = count - 1;
    while (left != pivot && right != pivot) {
        while (left != pivot && !order.goesAfter(items[left], items[pivot])) {
            ++left;
        }
        while (right != pivot && !order.goesBefore(items[right], items[pivot])) {
            --right;
        }
        if (left != pivot && right != pivot) {
            std::swap(items[left++], items[right--]);
        }
    }
    return left != pivot ? pullPivotDown(items, left, pivot, order)
                         : pushPivotUp(items, pivot, right, order);
}

// `budget`: partitions that a range may still go through, so also the depth of the recursion.
void sortRange(void** items, std::uint32_t count, const Order& order, int budget) {
    while (count > kSimlistSelectionSort) {
        if (budget-- == 0) {
            heapSort(items, count, order);
            return;
        }
        const std::uint32_t chosen = static_cast<std::uint32_t>(std::rand()) % count;
        const std::uint32_t pivot = partition(items, count, chosen, order);
        sortRange(items, pivot, order, budget);
        items += pivot + 1;
        count -= pivot + 1;
    }
    selectionSort(items, count, order);
}

} // namespace

std::int32_t simlist_sort(simlist* list, std::int32_t direction) {
    if (isIterating(list) || list->comparator == nullptr) {
        return -1;
    }
    if (list->count < 2) {
        return 0;
    }
    const std::unique_ptr<void* []> items { new (std::nothrow) void*[list->count] };
    if (!items) {
        return -1;
    }
    std::uint32_t filled = 0;
    for (const simlist_element* e = list->head->next; e != list->tail; e = e->next) {
        items[filled++] = e->data;
    }
    sortRange(items.get(), list->count, Order{list->comparator, -std::int64_t{direction}},
              2 * static_cast<int>(std::bit_width(list->count)));
    void* const* next = items.get();
    for (simlist_element* e = list->head->next; e != list->tail; e = e->next) {
        e->data = *next++;
    }
    return 0;
}

} // namespace kelconf
