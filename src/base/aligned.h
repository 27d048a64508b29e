// The cast of a pointer whose target is aligned for the new type, as its maker promises:
// -Wcast-align, on processors where that matters, knows of no such promise.
#pragma once

#include <type_traits>

namespace kelconf {

template <typename To, typename From>
To* alignedCast(From* from) {
    using Bytes = std::conditional_t<std::is_const_v<From>, const void, void>;
    return static_cast<To*>(static_cast<Bytes*>(from));
}

} // namespace kelconf
