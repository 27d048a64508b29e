#include "container/simlist.h"

#include "container/position_index.h"
#include "container/simlist_store.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <utility>

namespace kelconf {

namespace {

// Positions are compared as signed 32-bit values, so no element may lie beyond them.
constexpr std::uint32_t kMostElements = std::numeric_limits<std::int32_t>::max();

simlist_element* newRecord() {
    return new (std::nothrow) simlist_element{};
}

simlist_element* takeRecord(simlist* list) {
    return list->spare_count > 0 ? list->spares[--list->spare_count] : newRecord();
}

void releaseRecord(simlist* list, simlist_element* record) {
    if (list->spare_count < kSimlistSpares) {
        *record = {};
        list->spares[list->spare_count++] = record;
    } else {
        delete record;
    }
}

void releaseData(const simlist* list, const simlist_element* record) {
    if (list->copy_data != 0) {
        std::free(record->data);
    }
}

void join(simlist_element* before, simlist_element* after) {
    before->next = after;
    after->prev = before;
}

void placeMiddle(simlist* list) {
    list->middle =
        list->count == 0 ? nullptr : positionIndexAt(*list->index, (list->count - 1) / 2);
}

// Unlinks the record at `position` and returns its data.
void* takeOut(simlist* list, std::uint32_t position) {
    simlist_element* record = positionIndexAt(*list->index, position);
    positionIndexRemove(*list->index, position, 1);
    --list->count;
    placeMiddle(list);
    join(record->prev, record->next);
    void* data = record->data;
    releaseRecord(list, record);
    return data;
}

// Frees the records from `first` up to, but not including, `end`, with what they own.
void releaseChain(simlist* list, simlist_element* first, const simlist_element* end) {
    while (first != end) {
        simlist_element* next = first->next;
        releaseData(list, first);
        releaseRecord(list, first);
        first = next;
    }
}

void empty(simlist* list) {
    releaseChain(list, list->head->next, list->tail);
    join(list->head, list->tail);
    positionIndexClear(*list->index);
    list->count = 0;
    list->middle = nullptr;
}

} // namespace

std::int32_t simlist_init(simlist* list) {
    if (list == nullptr) {
        return -1;
    }
    *list = {};
    std::unique_ptr<simlist_element> head{newRecord()};
    std::unique_ptr<simlist_element> tail{newRecord()};
    std::unique_ptr<simlist_element* []> spares {
        new (std::nothrow) simlist_element* [kSimlistSpares] {}
    };
    std::unique_ptr<PositionIndex> index{new (std::nothrow) PositionIndex};
    if (!head || !tail || !spares || !index) {
        return -1;
    }
    join(head.get(), tail.get());
    list->head = head.release();
    list->tail = tail.release();
    list->spares = spares.release();
    list->index = index.release();
    return 0;
}

void simlist_destroy(simlist* list) {
    if (list == nullptr || list->head == nullptr) {
        return;
    }
    empty(list); // also under an iteration: whatever stayed would be lost
    for (std::uint32_t i = 0; i < list->spare_count; ++i) {
        delete list->spares[i];
    }
    delete[] list->spares;
    delete list->head;
    delete list->tail;
    delete list->index;
    *list = {};
}

std::int32_t simlist_clear(simlist* list) {
    if (isIterating(list)) {
        return -1;
    }
    empty(list);
    return 0;
}

std::int32_t simlist_attributes_comparator(simlist* list, simlist_comparator comparator) {
    if (list == nullptr) {
        return -1;
    }
    list->comparator = comparator;
    return 0;
}

std::int32_t simlist_attributes_seeker(simlist* list, simlist_seeker seeker) {
    if (list == nullptr) {
        return -1;
    }
    list->seeker = seeker;
    return 0;
}

std::int32_t simlist_attributes_copy(simlist* list, simlist_meter meter, std::int32_t copy_flag) {
    if (list == nullptr || (copy_flag != 0 && meter == nullptr)) {
        return -1;
    }
    list->meter = meter;
    list->copy_data = copy_flag;
    return 0;
}

std::int32_t simlist_attributes_hash_computer(simlist* list, simlist_hash_computer computer) {
    if (list == nullptr) {
        return -1;
    }
    list->hash_computer = computer;
    return 0;
}

std::int32_t simlist_attributes_serializer(simlist* list, simlist_serializer serializer) {
    if (list == nullptr) {
        return -1;
    }
    list->serializer = serializer;
    return 0;
}

std::int32_t simlist_attributes_unserializer(simlist* list, simlist_unserializer unserializer) {
    if (list == nullptr) {
        return -1;
    }
    list->unserializer = unserializer;
    return 0;
}

std::uint32_t simlist_size(const simlist* list) {
    return list->count;
}

std::int32_t simlist_empty(const simlist* list) {
    return list->count == 0 ? 1 : 0;
}

void* simlist_get_at(const simlist* list, std::uint32_t position) {
    // As signed values, the positions from 2^31 on lie before the list: one comparison serves.
    return position < list->count ? positionIndexAt(*list->index, position)->data : nullptr;
}

std::int32_t simlistStoreAt(simlist* list, void* data, std::uint32_t position) {
    if (isIterating(list) || position > list->count || list->count >= kMostElements) {
        return -1;
    }
    simlist_element* record = takeRecord(list);
    if (record == nullptr) {
        return -1;
    }
    simlist_element* after =
        position == list->count ? list->tail : positionIndexAt(*list->index, position);
    if (!positionIndexInsert(*list->index, position, record)) {
        releaseRecord(list, record);
        return -1;
    }
    record->data = data;
    join(after->prev, record);
    join(record, after);
    ++list->count;
    placeMiddle(list);
    return 1;
}

std::int32_t simlist_insert_at(simlist* list, const void* data, std::uint32_t position) {
    // The list hands the caller's pointer out again as it came, hence not const.
    if (list->copy_data == 0 || data == nullptr) {
        return simlistStoreAt(list, const_cast<void*>(data), position);
    }
    if (isIterating(list) || position > list->count) {
        return -1;
    }
    const std::size_t size = list->meter(data);
    OwnedData copy{std::malloc(std::max<std::size_t>(size, 1))};
    if (!copy) {
        return -1;
    }
    std::memcpy(copy.get(), data, size);
    const std::int32_t result = simlistStoreAt(list, copy.get(), position);
    if (result == 1) {
        static_cast<void>(copy.release());
    }
    return result;
}

std::int32_t simlist_append(simlist* list, const void* data) {
    return simlist_insert_at(list, data, list->count);
}

std::int32_t simlist_prepend(simlist* list, const void* data) {
    return simlist_insert_at(list, data, 0);
}

std::int32_t simlist_delete_at(simlist* list, std::uint32_t position) {
    return simlist_delete_range(list, position, position);
}

std::int32_t simlist_delete_range(simlist* list, std::uint32_t start, std::uint32_t end) {
    if (isIterating(list) || end < start || end >= list->count) {
        return -1;
    }
    simlist_element* first = positionIndexAt(*list->index, start);
    simlist_element* last = positionIndexAt(*list->index, end);
    simlist_element* after = last->next;
    join(first->prev, after);
    positionIndexRemove(*list->index, start, end - start + 1);
    list->count -= end - start + 1;
    releaseChain(list, first, after);
    placeMiddle(list);
    return 0;
}

void* simlist_extract_at(simlist* list, std::uint32_t position) {
    return !isIterating(list) && position < list->count ? takeOut(list, position) : nullptr;
}

void* simlist_fetch(simlist* list) {
    return simlist_extract_at(list, 0);
}

} // namespace kelconf
