#include "service/request_lists.h"

#include "bus/service_locks.h"
#include "log/keldebug.h"
#include "service/param_list.h"
#include "text/text.h"

#include <cstring>
#include <unordered_set>

namespace kelconf {

simlist GetAnswerList;
simlist SetAnswerList;
simlist QryGroupList;

namespace {

constexpr std::size_t kGroupWidth = 8; // bytes of a name that decide about its group

// The deciding bytes of a name, zero beyond its end: two names agree when their keys are equal.
using GroupKey = std::uint64_t;
static_assert(sizeof(GroupKey) == kGroupWidth);

GroupKey groupKeyOf(const char* name) {
    GroupKey key = 0;
    std::memcpy(&key, name, strnlen(name, kGroupWidth));
    return key;
}

// The keys of QryGroupList, so that a listing costs the same for one group and for thousands.
std::unordered_set<GroupKey> group_keys; // NOLINT(cert-err58-cpp): an empty set allocates nothing

template <typename Record>
std::size_t recordMeter(const void* /*element*/) {
    return sizeof(Record);
}

template <typename Record>
void initList(simlist& list) {
    simlist_init(&list);
    simlist_attributes_copy(&list, recordMeter<Record>, 1);
}

std::int32_t lengthOf(const simlist& list) {
    return static_cast<std::int32_t>(simlist_size(&list));
}

AnswerElement* answerAt(const simlist& list, std::uint32_t position) {
    return static_cast<AnswerElement*>(simlist_get_at(&list, position));
}

std::int32_t addAnswer(simlist& list, const char* name, const char* value) {
    OwnedText name_copy{name == nullptr ? nullptr : newText(name)};
    OwnedText value_copy{newText(viewOf(value))};
    if (!value_copy || (name != nullptr && !name_copy)) {
        return -1;
    }
    const AnswerElement element{name_copy.get(), value_copy.get()};
    const std::int32_t added = simlist_append(&list, &element);
    if (added == 1) { // the list owns the texts now
        static_cast<void>(name_copy.release());
        static_cast<void>(value_copy.release());
    }
    return added;
}

void dumpAnswers(const simlist& list) {
    for (std::int32_t i = 0; i < lengthOf(list); ++i) {
        const AnswerElement* element = answerAt(list, static_cast<std::uint32_t>(i));
        if (element == nullptr) {
            return;
        }
        const char* name = element->name == nullptr ? "" : element->name;
        if (element->value != nullptr) {
            keldebug(kLogInfo, kToBoth, "%d. name:%s value:%s\n", i, name, element->value);
        } else {
            keldebug(kLogInfo, kToBoth, "%d. name:%s \n", i, name);
        }
    }
}

void releaseAnswers(simlist& list) {
    const std::uint32_t count = simlist_size(&list);
    for (std::uint32_t i = 0; i < count; ++i) {
        AnswerElement* element = answerAt(list, i);
        if (element == nullptr) {
            break;
        }
        freeText(element->value);
        freeText(element->name);
    }
    simlist_clear(&list);
}

} // namespace

void initGetAnswerList() {
    initList<AnswerElement>(GetAnswerList);
}

void initSetAnswerList() {
    initList<AnswerElement>(SetAnswerList);
}

void initQryGroupListList() {
    initList<GroupElement>(QryGroupList);
    group_keys.clear();
}

std::int32_t CheckGetAnswerListLength() {
    return lengthOf(GetAnswerList);
}

std::int32_t CheckSetAnswerListLength() {
    return lengthOf(SetAnswerList);
}

std::int32_t CheckQryGroupListLength() {
    return lengthOf(QryGroupList);
}

std::int32_t addGetAnswerElement(const AnswerElement* element) {
    return simlist_append(&GetAnswerList, element);
}

std::int32_t addSetAnswerElement(const AnswerElement* element) {
    return simlist_append(&SetAnswerList, element);
}

std::int32_t addGetAnswerElementWithName(const char* name) {
    return addAnswer(GetAnswerList, name, "");
}

std::int32_t addSetAnswerElementWithName(const char* name) {
    return addAnswer(SetAnswerList, name, "");
}

std::int32_t addQryGroupElementWithName(const char* name) {
    OwnedText copy{name == nullptr ? nullptr : newText(name)};
    if (name != nullptr && !copy) {
        return -1;
    }
    const GroupElement element{copy.get()};
    const std::int32_t added = simlist_append(&QryGroupList, &element);
    if (added == 1) {
        if (name != nullptr) {
            group_keys.insert(groupKeyOf(name));
        }
        static_cast<void>(copy.release());
    }
    return added;
}

std::int32_t addGetAnswerElementWithNameAndValue(const char* name, const char* value) {
    return addAnswer(GetAnswerList, name, value);
}

std::int32_t addSetAnswerElementWithNameAndValue(const char* name, const char* value) {
    return addAnswer(SetAnswerList, name, value);
}

AnswerElement* getAnswerAt(std::uint32_t position) {
    return answerAt(GetAnswerList, position);
}

AnswerElement* setAnswerAt(std::uint32_t position) {
    return answerAt(SetAnswerList, position);
}

void dumpGetAnswerList() {
    dumpAnswers(GetAnswerList);
}

void dumpSetAnswerList() {
    dumpAnswers(SetAnswerList);
}

void delGetAnswerElement() {
    releaseAnswers(GetAnswerList);
}

void delSetAnswerElement() {
    releaseAnswers(SetAnswerList);
}

void delQryGroupElement() {
    const std::uint32_t count = simlist_size(&QryGroupList);
    for (std::uint32_t i = 0; i < count; ++i) {
        auto* element = static_cast<GroupElement*>(simlist_get_at(&QryGroupList, i));
        if (element == nullptr) {
            break;
        }
        freeText(element->name);
    }
    simlist_clear(&QryGroupList);
    group_keys.clear();
}

std::int32_t searchValueForGetAnswerList() {
    std::int32_t result = 1;
    for (std::uint32_t i = 0; i < simlist_size(&GetAnswerList); ++i) {
        AnswerElement* element = getAnswerAt(i);
        if (element == nullptr) {
            break;
        }
        if (element->name == nullptr) {
            continue;
        }
        const ParamElement* param = seekParamElement(element->name);
        if (param == nullptr) {
            result = 0;
            continue;
        }
        const CriticalSection lock;
        replaceText(element->value, viewOf(param->value));
    }
    return result;
}

std::int32_t IsGroupNode(const char* name) {
    return !group_keys.empty() && group_keys.contains(groupKeyOf(name)) ? 1 : 0;
}

} // namespace kelconf
