// Fills the live lists of the service for tests, and empties them.
#pragma once

#include "container/simlist.h"
#include "service/item_queue.h"
#include "service/param_list.h"
#include "service/request_lists.h"
#include "text/text.h"

#include <gtest/gtest.h>

#include <string>

namespace kelconf::test {

inline void addLive(const std::string& name, const std::string& value, bool realtime = false) {
    ParamElement element;
    initParamElement(&element);
    element.name = newText(name);
    element.value = newText(value);
    element.persistent = realtime ? 0 : 1;
    ASSERT_EQ(addParamElement(&element), 1);
}

inline std::string live(const char* name) {
    const ParamElement* element = seekParamElement(name);
    return element == nullptr ? "(none)" : element->value;
}

// Every list of the service, empty; the item queue is made once.
inline void emptyLists() {
    static const bool made = [] {
        initParamList();
        initGetAnswerList();
        initSetAnswerList();
        initQryGroupListList();
        return initItemQueue() != nullptr;
    }();
    ASSERT_TRUE(made);
    for (std::uint32_t i = 0; paramElementAt(i) != nullptr; ++i) {
        freeText(paramElementAt(i)->name);
        freeText(paramElementAt(i)->value);
    }
    simlist_clear(&ParamList);
    delGetAnswerElement();
    delSetAnswerElement();
    delQryGroupElement();
    while (QueueItem* item = item_queue_dequeue()) {
        releaseQueueItem(item);
    }
    process_file_event = 0;
}

} // namespace kelconf::test
