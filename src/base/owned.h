// Owner of memory of malloc, as the libraries that speak C hand it out and take it over.
#pragma once

#include <cstdlib>
#include <memory>

namespace kelconf {

struct FreeMemory {
    void operator()(void* memory) const noexcept { std::free(memory); }
};
template <typename T>
using Owned = std::unique_ptr<T, FreeMemory>;

} // namespace kelconf
