// How the list's own sources put elements in and take them out. Not for users of the list.
#pragma once

#include "base/owned.h"
#include "container/simlist.h"

namespace kelconf {

// Element contents are malloc memory: simlist_extract_at and the unserializers trade in it.
using OwnedData = Owned<void>;

// While an iteration runs the list does not change.
inline bool isIterating(const simlist* list) {
    return list->iterator_active != 0;
}

// As simlist_insert_at, but stores `data` itself, also with copy_data set, when the list then
// takes it over. On -1 it is still the caller's.
std::int32_t simlistStoreAt(simlist* list, void* data, std::uint32_t position);

} // namespace kelconf
