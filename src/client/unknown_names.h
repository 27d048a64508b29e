// Tells unknown names from empty values: the service answers both with an empty text.
#pragma once

#include "client/values.h"
#include "kelbus.h"

#include <cstddef>
#include <utility>
#include <vector>

namespace kelconf {

// A search among the empty values of an answer of failure, which says that at least one name is
// unknown. It asks for some of them together and halves where the answer is failure again: that
// finds few among many soon. Gives each of `values` that is unknown the value null.
class UnknownNames {
  public:
    explicit UnknownNames(ValueList& values);

    // False when no value is empty: the answer contradicts itself.
    [[nodiscard]] bool possible() const { return !doubtful_.empty(); }
    [[nodiscard]] bool over() const { return open_.empty(); }

    // The names to ask for next, and whether the answer was that some of them are unknown.
    [[nodiscard]] std::vector<kelbus_parameter> question() const;
    void answered(bool some_unknown);

    // The first unknown one, null when all have come to be known meanwhile.
    [[nodiscard]] const char* first() const;

  private:
    using Range = std::pair<std::size_t, std::size_t>; // begin and end in doubtful_

    void split(Range range);

    ValueList& values_;
    std::vector<std::size_t> doubtful_; // places in values_
    std::vector<Range> open_;           // the last one is next
};

} // namespace kelconf
