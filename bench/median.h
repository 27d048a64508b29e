// The middle of measured values; of an even number of them the mean of the two in the middle.
#pragma once

#include <algorithm>
#include <vector>

inline double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t middle = values.size() / 2;
    return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}
