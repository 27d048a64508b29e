#include "client/unknown_names.h"

#include "text/text.h"

namespace kelconf {

UnknownNames::UnknownNames(ValueList& values) : values_(values) {
    for (std::size_t i = 0; i < values.parameters.size(); ++i) {
        if (viewOf(values.parameters[i].value).empty()) {
            doubtful_.push_back(i);
        }
    }
    if (possible()) {
        split({0, doubtful_.size()});
    }
}

// At least one name of the range is unknown.
void UnknownNames::split(Range range) {
    const auto [begin, end] = range;
    if (end - begin == 1) {
        values_.parameters[doubtful_[begin]].value = nullptr;
        return;
    }
    const std::size_t middle = begin + (end - begin) / 2;
    open_.emplace_back(middle, end);
    open_.emplace_back(begin, middle);
}

std::vector<kelbus_parameter> UnknownNames::question() const {
    const auto [begin, end] = open_.back();
    std::vector<kelbus_parameter> names;
    names.reserve(end - begin);
    for (std::size_t i = begin; i < end; ++i) {
        names.push_back({values_.parameters[doubtful_[i]].name, nullptr});
    }
    return names;
}

void UnknownNames::answered(bool some_unknown) {
    const Range asked = open_.back();
    open_.pop_back();
    if (some_unknown) {
        split(asked);
    }
}

const char* UnknownNames::first() const {
    for (const kelbus_parameter& parameter : values_.parameters) {
        if (parameter.value == nullptr) {
            return parameter.name;
        }
    }
    return nullptr;
}

} // namespace kelconf
