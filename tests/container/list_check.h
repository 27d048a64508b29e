// What the tests of the list share.
#pragma once

#include "container/simlist.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace kelconf {

// A list that is initialised and destroyed with its scope.
struct ScopedList : simlist {
    ScopedList() { EXPECT_EQ(simlist_init(this), 0); }
    const std::unique_ptr<simlist, decltype(&simlist_destroy)> destroyer{this, &simlist_destroy};
};

// An element of the lists that store a number in the pointer itself.
inline void* numbered(std::size_t number) {
    return reinterpret_cast<void*>(number);
}

// Appends the numbers from 1 to `count`.
inline void fill(simlist& list, std::size_t count) {
    for (std::size_t i = 1; i <= count; ++i) {
        ASSERT_EQ(simlist_append(&list, numbered(i)), 1);
    }
}

// What `fill` makes, from one number to another.
inline std::vector<void*> numbers(std::size_t first, std::size_t last) {
    std::vector<void*> result;
    for (std::size_t i = first; i <= last; ++i) {
        result.push_back(numbered(i));
    }
    return result;
}

inline std::vector<void*> contentsOf(const simlist& list) {
    std::vector<void*> contents;
    for (const simlist_element* e = list.head->next; e != list.tail; e = e->next) {
        contents.push_back(e->data);
    }
    return contents;
}

// Walks the list both ways and holds the links, the lookup by position, `middle`, `count` and
// the pool against each other and against what it should contain.
inline ::testing::AssertionResult isSound(const simlist& list, const std::vector<void*>& expected) {
    const simlist_element* record = list.head;
    for (std::size_t i = 0; i < expected.size(); ++i) {
        const simlist_element* before = record;
        record = record->next;
        if (record == list.tail || record->prev != before || record->data != expected[i] ||
            simlist_record_at(&list, static_cast<std::int64_t>(i)) != record ||
            simlist_get_at(&list, static_cast<std::uint32_t>(i)) != expected[i]) {
            return ::testing::AssertionFailure() << "links, data or lookup wrong at " << i;
        }
    }
    const simlist_element* middle =
        expected.empty() ? nullptr : simlist_record_at(&list, (std::int64_t{list.count} - 1) / 2);
    if (record->next != list.tail || list.tail->prev != record || list.tail->next != nullptr ||
        list.head->prev != nullptr || list.count != expected.size() || list.middle != middle) {
        return ::testing::AssertionFailure() << "wrong end, count or middle of " << list.count;
    }
    return ::testing::AssertionSuccess();
}

} // namespace kelconf
