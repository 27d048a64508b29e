// What the tests of the list share.
#pragma once

#include "container/simlist.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace kelconf {

using Contents = std::vector<const void*>;

// A list that is initialised and destroyed with its scope.
struct ScopedList : simlist {
    ScopedList() { EXPECT_EQ(simlist_init(this), 0); }
    const std::unique_ptr<simlist, decltype(&simlist_destroy)> destroyer{this, &simlist_destroy};
};

// An element of the lists that store a number in the pointer itself.
inline void* numbered(std::size_t number) {
    return reinterpret_cast<void*>(number);
}

// The numbers from 1 to `count`, which are appended to the list, unless null.
inline Contents fill(simlist* list, std::size_t count) {
    Contents numbers;
    for (std::size_t i = 1; i <= count; ++i) {
        numbers.push_back(numbered(i));
        EXPECT_TRUE(list == nullptr || simlist_append(list, numbered(i)) == 1);
    }
    return numbers;
}

// The contents, after walking both ways and holding links, lookup, middle and count together.
inline Contents contentsOf(const simlist& list) {
    Contents contents;
    const simlist_element* record = list.head;
    const simlist_element* middle = nullptr;
    for (std::uint32_t i = 0; record->next != list.tail; ++i) {
        EXPECT_EQ(record->next->prev, record);
        record = record->next;
        contents.push_back(record->data);
        EXPECT_EQ(simlist_get_at(&list, i), record->data) << i;
        middle = i == (list.count - 1) / 2 ? record : middle;
    }
    EXPECT_TRUE(list.tail->prev == record && !list.tail->next && !list.head->prev);
    EXPECT_EQ(simlist_size(&list), contents.size());
    EXPECT_EQ(list.middle, middle);
    return contents;
}

} // namespace kelconf
