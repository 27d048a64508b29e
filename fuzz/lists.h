// The lists of the service, for targets that feed it.
#pragma once

#include "require.h"
#include "service/item_queue.h"
#include "service/param_list.h"
#include "service/request_lists.h"
#include "text/text.h"

#include <string_view>

namespace kelconf::fuzz {

inline void makeLists() {
    quietParser();
    initParamList();
    initGetAnswerList();
    initSetAnswerList();
    initQryGroupListList();
    require(initItemQueue() != nullptr);
}

inline void addLive(std::string_view name, std::string_view value, bool realtime) {
    ParamElement element;
    initParamElement(&element);
    element.name = newText(name);
    element.value = newText(value);
    element.persistent = realtime ? 0 : 1;
    require(addParamElement(&element) == 1);
}

inline void emptyRequests() {
    delGetAnswerElement();
    delSetAnswerElement();
    delQryGroupElement();
}

} // namespace kelconf::fuzz
