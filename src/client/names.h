// Names as the calls of kelbus.h are given them.
#pragma once

#include "kelbus.h"

#include <cstddef>
#include <vector>

namespace kelconf {

// The names as parameters without values, which point at the caller's texts. False when `names` is
// no list of `count` names.
inline bool readNames(const char* const* names, std::size_t count,
                      std::vector<kelbus_parameter>& parameters) {
    if (names == nullptr && count > 0) {
        return false;
    }
    parameters.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        parameters.push_back({names[i], nullptr});
    }
    return true;
}

} // namespace kelconf
