#include "tree/xitem.h"

#include "log/keldebug.h"
#include "text/text.h"

#include <cstring>

namespace kelconf {

simlist xitem_list{};

std::int32_t xitemCompare(const void* a, const void* b) {
    return std::strcmp(static_cast<const xitem*>(a)->name, static_cast<const xitem*>(b)->name);
}

std::int32_t xitemSeek(const void* element, const void* key) {
    const auto* item = static_cast<const xitem*>(element);
    if (item == nullptr || item->name == nullptr || key == nullptr) {
        return 0;
    }
    return std::strcmp(item->name, static_cast<const char*>(key)) == 0 ? 1 : 0;
}

std::size_t xitemSize(const void* /*element*/) {
    return sizeof(xitem);
}

std::int32_t initXitemList() {
    if (simlist_init(&xitem_list) != 0) {
        return -1;
    }
    simlist_attributes_seeker(&xitem_list, xitemSeek);
    simlist_attributes_comparator(&xitem_list, xitemCompare);
    return simlist_attributes_copy(&xitem_list, xitemSize, 1);
}

std::int32_t CheckXitemListLength() {
    return static_cast<std::int32_t>(simlist_size(&xitem_list));
}

std::int32_t addXitemElement(const xitem* item) {
    return simlist_append(&xitem_list, item);
}

xitem* xitemAt(std::uint32_t position) {
    return static_cast<xitem*>(simlist_get_at(&xitem_list, position));
}

xitem* searchXitemElement(const char* name) {
    std::int32_t low = 0;
    std::int32_t high = CheckXitemListLength() - 1;
    while (low < high) {
        const std::int32_t middle = low + (high - low) / 2;
        xitem* item = xitemAt(static_cast<std::uint32_t>(middle));
        const int order = std::strcmp(item->name, name);
        if (order == 0) {
            return item;
        }
        if (order > 0) {
            high = middle - 1;
        } else {
            low = middle + 1;
        }
    }
    xitem* last = xitemAt(static_cast<std::uint32_t>(low));
    return xitemSeek(last, name) != 0 ? last : nullptr;
}

xitem* searchAndMarkXitem(const char* name) {
    xitem* item = searchXitemElement(name);
    if (item != nullptr) {
        item->mark = 1;
    }
    return item;
}

std::int32_t sortXitemList() {
    return simlist_sort(&xitem_list, -1);
}

std::int32_t sortXitem() {
    return sortXitemList();
}

void freeXitemTexts(xitem& item) {
    for (char* text : {item.name, item.value, item.type, item.range, item.step, item.options,
                       item.mode, item.http_access}) {
        freeText(text);
    }
}

void delXitemList() {
    const std::uint32_t count = simlist_size(&xitem_list);
    for (std::uint32_t i = 0; i < count; ++i) {
        if (xitem* item = xitemAt(i)) {
            freeXitemTexts(*item);
        }
    }
    simlist_destroy(&xitem_list);
}

void dumpXitemlist() {
    const std::uint32_t count = simlist_size(&xitem_list);
    for (std::uint32_t i = 0; i < count; ++i) {
        const xitem* item = xitemAt(i);
        keldebug(
            kLogInfo, kToBoth,
            "%d name:%s value:%s type:%s range:%s step:%s options:%s mode:%s http_access:%s \n",
            static_cast<int>(i), item->name, item->value, item->type, item->range, item->step,
            item->options, item->mode, item->http_access);
    }
}

} // namespace kelconf
