// How the list's own sources put elements in and take them out. Not for users of the list.
#pragma once

#include "container/simlist.h"

#include <cstdlib>
#include <memory>

namespace kelconf {

// Element contents are malloc memory: simlist_extract_at and the unserializers trade in it.
struct DataDeleter {
    void operator()(void* data) const noexcept { std::free(data); }
};
using OwnedData = std::unique_ptr<void, DataDeleter>;

// As simlist_insert_at, but stores `data` itself, also with copy_data set, when the list then
// takes it over. On -1 it is still the caller's.
std::int32_t simlistStoreAt(simlist* list, void* data, std::uint32_t position);

} // namespace kelconf
