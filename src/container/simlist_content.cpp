// Everything that goes through a list from its front: search by content, concatenation, hash,
// iteration.
#include "container/simlist_store.h"

namespace kelconf {

namespace {

bool appendAll(simlist* list, const simlist* source) {
    for (const simlist_element* e = source->head->next; e != source->tail; e = e->next) {
        if (simlist_append(list, e->data) != 1) {
            return false;
        }
    }
    return true;
}

// Walks with the comparator; `sign` is the sign of its result that makes the second element the
// better one.
void* best(const simlist* list, std::int32_t sign) {
    if (list->comparator == nullptr || list->count == 0) {
        return nullptr;
    }
    void* found = list->head->next->data;
    for (const simlist_element* e = list->head->next->next; e != list->tail; e = e->next) {
        const std::int32_t order = list->comparator(found, e->data);
        if (sign > 0 ? order > 0 : order < 0) {
            found = e->data;
        }
    }
    return found;
}

bool isEqual(const simlist* list, const void* data, const void* element) {
    return list->comparator != nullptr ? list->comparator(data, element) == 0 : data == element;
}

} // namespace

void* simlist_get_max(const simlist* list) {
    return best(list, 1);
}

void* simlist_get_min(const simlist* list) {
    return best(list, -1);
}

std::int32_t simlist_locate(const simlist* list, const void* data) {
    std::int32_t position = 0;
    for (const simlist_element* e = list->head->next; e != list->tail; e = e->next) {
        if (isEqual(list, data, e->data)) {
            return position;
        }
        ++position;
    }
    return -1;
}

std::int32_t simlist_delete(simlist* list, const void* data) {
    const std::int32_t position = simlist_locate(list, data);
    return position < 0 ? -1 : simlist_delete_at(list, static_cast<std::uint32_t>(position));
}

void* simlist_seek(const simlist* list, const void* indicator) {
    if (list->seeker == nullptr) {
        return nullptr;
    }
    for (const simlist_element* e = list->head->next; e != list->tail; e = e->next) {
        if (list->seeker(e->data, indicator) != 0) {
            return e->data;
        }
    }
    return nullptr;
}

std::int32_t simlist_contains(const simlist* list, const void* data) {
    return simlist_locate(list, data) >= 0 ? 1 : 0;
}

std::int32_t simlist_concat(const simlist* first, const simlist* second, simlist* destination) {
    if (first == nullptr || second == nullptr || destination == nullptr || destination == first ||
        destination == second || simlist_init(destination) != 0) {
        return -1;
    }
    if (!appendAll(destination, first) || !appendAll(destination, second)) {
        simlist_destroy(destination);
        return -1;
    }
    return 0;
}

std::int32_t simlist_hash(const simlist* list, std::uint32_t* hash) {
    if (list->hash_computer == nullptr) {
        return -1;
    }
    std::uint32_t h = list->count * 2 + 100;
    for (const simlist_element* e = list->head->next; e != list->tail; e = e->next) {
        h += h ^ list->hash_computer(e->data);
        h += h % list->count; // the running value: the same list gives the same hash always
    }
    *hash = h;
    return 0;
}

std::int32_t simlist_iterator_start(simlist* list) {
    if (isIterating(list)) {
        return 0;
    }
    list->iterator_active = 1;
    list->iterator_position = 0;
    list->iterator_cursor = list->head->next;
    return 1;
}

void* simlist_iterator_next(simlist* list) {
    // At the tail the iteration has ended: there is no record to go to.
    if (!isIterating(list) || list->iterator_cursor == list->tail) {
        return nullptr;
    }
    void* data = list->iterator_cursor->data;
    list->iterator_cursor = list->iterator_cursor->next;
    ++list->iterator_position;
    return data;
}

std::int32_t simlist_iterator_hasnext(const simlist* list) {
    return isIterating(list) && list->iterator_position < list->count ? 1 : 0;
}

std::int32_t simlist_iterator_stop(simlist* list) {
    if (!isIterating(list)) {
        return 0;
    }
    list->iterator_active = 0;
    list->iterator_position = 0;
    return 1;
}

} // namespace kelconf
