#include "service/param_list.h"

#include "bus/service_locks.h"
#include "log/keldebug.h"
#include "text/text.h"

#include <bit>
#include <cstring>
#include <functional>
#include <limits>
#include <vector>

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

// Where each name stood after the sort, by its hash: an open table, at most half full. A look-up
// follows it to one element, where the binary search touches sixteen of 50,000, each of them cold.
// It is a hint: the element's name decides, and without a hint, or with a wrong one, the search.
constexpr std::uint32_t kNoHint = std::numeric_limits<std::uint32_t>::max();
std::vector<std::uint32_t> hints; // positions. NOLINT(cert-err58-cpp): empty, allocates nothing

std::size_t firstSlotOf(const char* name) {
    return std::hash<std::string_view>{}(name) & (hints.size() - 1);
}

std::size_t slotAfter(std::size_t slot) {
    return (slot + 1) & (hints.size() - 1);
}

void rememberPositions() {
    const std::uint32_t count = simlist_size(&ParamList);
    hints.assign(std::bit_ceil(std::size_t{count} * 2 + 1), kNoHint);
    for (std::uint32_t i = 0; i < count; ++i) {
        std::size_t slot = firstSlotOf(paramElementAt(i)->name);
        while (hints[slot] != kNoHint) {
            slot = slotAfter(slot);
        }
        hints[slot] = i;
    }
}

ParamElement* hintedElement(const char* name) {
    if (hints.empty()) {
        return nullptr;
    }
    for (std::size_t slot = firstSlotOf(name); hints[slot] != kNoHint; slot = slotAfter(slot)) {
        ParamElement* element = paramElementAt(hints[slot]);
        if (element != nullptr && std::strcmp(element->name, name) == 0) {
            return element;
        }
    }
    return nullptr;
}

ParamElement* searchSorted(const char* name) {
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

} // namespace

void initParamList() {
    simlist_init(&ParamList);
    simlist_attributes_seeker(&ParamList, paramSeeker);
    simlist_attributes_comparator(&ParamList, paramComparator);
    simlist_attributes_copy(&ParamList, paramMeter, 1);
    hints.clear();
}

void initParamElement(ParamElement* element) {
    *element = {nullptr, nullptr, 1};
}

std::int32_t addParamElement(const ParamElement* element) {
    hints.clear(); // the table has no room for more
    return simlist_append(&ParamList, element);
}

void sortParamList() {
    simlist_sort(&ParamList, -1);
    rememberPositions();
}

std::int32_t CheckParamListLength() {
    return static_cast<std::int32_t>(simlist_size(&ParamList));
}

ParamElement* paramElementAt(std::uint32_t position) {
    return static_cast<ParamElement*>(simlist_get_at(&ParamList, position));
}

ParamElement* seekParamElement(const char* name) {
    ParamElement* hinted = hintedElement(name);
    return hinted != nullptr ? hinted : searchSorted(name);
}

std::int32_t DeleteFromParamList(const char* name) {
    const auto count = static_cast<std::uint32_t>(CheckParamListLength());
    for (std::uint32_t i = 0; i < count; ++i) {
        ParamElement* element = paramElementAt(i);
        if (std::strcmp(element->name, name) == 0) {
            const CriticalSection lock;
            hints.clear(); // the positions behind it change
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
