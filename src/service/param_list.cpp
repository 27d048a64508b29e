#include "service/param_list.h"

#include "bus/service_locks.h"
#include "log/keldebug.h"
#include "text/text.h"

#include <cstring>

namespace kelconf {

simlist ParamList;

namespace {

constexpr std::size_t kElementOverhead = 27; // bytes that the size figure adds for an element

const ParamElement* asParam(const void* element) {
    return static_cast<const ParamElement*>(element);
}

std::size_t paramMeter(const void* /*element*/) {
    return sizeof(ParamElement);
}

std::int32_t paramSeeker(const void* element, const void* key) {
    return element != nullptr &&
                   std::strcmp(asParam(element)->name, static_cast<const char*>(key)) == 0
               ? 1
               : 0;
}

std::int32_t paramComparator(const void* a, const void* b) {
    return std::strcmp(asParam(a)->name, asParam(b)->name);
}

} // namespace

void initParamList() {
    simlist_init(&ParamList);
    simlist_attributes_seeker(&ParamList, paramSeeker);
    simlist_attributes_comparator(&ParamList, paramComparator);
    simlist_attributes_copy(&ParamList, paramMeter, 1);
}

void initParamElement(ParamElement* element) {
    *element = {nullptr, nullptr, 1};
}

std::int32_t addParamElement(const ParamElement* element) {
    return simlist_append(&ParamList, element);
}

void sortParamList() {
    simlist_sort(&ParamList, -1);
}

std::int32_t CheckParamListLength() {
    return static_cast<std::int32_t>(simlist_size(&ParamList));
}

ParamElement* paramElementAt(std::uint32_t position) {
    return static_cast<ParamElement*>(simlist_get_at(&ParamList, position));
}

ParamElement* seekParamElement(const char* name) {
    std::int32_t lo = 0;
    std::int32_t hi = CheckParamListLength() - 1;
    while (lo < hi) {
        const std::int32_t mid = lo + (hi - lo) / 2;
        ParamElement* probe = paramElementAt(static_cast<std::uint32_t>(mid));
        const int order = std::strcmp(probe->name, name);
        if (order == 0) {
            return probe;
        }
        if (order > 0) {
            hi = mid - 1;
        } else {
            lo = mid + 1;
        }
    }
    ParamElement* last = paramElementAt(static_cast<std::uint32_t>(lo));
    return last != nullptr && std::strcmp(last->name, name) == 0 ? last : nullptr;
}

std::int32_t DeleteFromParamList(const char* name) {
    const auto count = static_cast<std::uint32_t>(CheckParamListLength());
    for (std::uint32_t i = 0; i < count; ++i) {
        ParamElement* element = paramElementAt(i);
        if (std::strcmp(element->name, name) == 0) {
            const CriticalSection lock;
            freeText(element->value);
            freeText(element->name);
            simlist_delete_at(&ParamList, i);
            return 1;
        }
    }
    return 0;
}

void dumpParamList() {
    for (std::int32_t i = 0; i < CheckParamListLength(); ++i) {
        const ParamElement* element = paramElementAt(static_cast<std::uint32_t>(i));
        if (element == nullptr) {
            return;
        }
        keldebug(kLogInfo, kToBoth, "%d. name:%s value:%s \n", i, element->name, element->value);
    }
}

void calculateParamSize() {
    std::size_t total = 0;
    const auto count = static_cast<std::uint32_t>(CheckParamListLength());
    for (std::uint32_t i = 0; i < count; ++i) {
        const ParamElement* element = paramElementAt(i);
        total += strlens(element->name) + strlens(element->value) + kElementOverhead;
    }
    keldebug(kLogInfo, kToBoth, "Parameter elements list size:%d\n",
             static_cast<std::int32_t>(total));
}

} // namespace kelconf
