#include "web/mirror.h"

#include <algorithm>
#include <utility>

namespace kelconf::web {

std::optional<Change> Mirror::apply(std::string_view name, std::string_view value) {
    const std::lock_guard lock{mutex_};
    std::size_t place = 0;
    const std::string* present = valueOf(content_, name, place);
    if (present == nullptr || *present == value) {
        return {};
    }
    Change change{std::string{name}, *present, std::string{value},
                  (*content_.definitions)[place].secret};
    content_.values[place] = value;
    ++content_.changes;
    return change;
}

void Mirror::load(Content content) {
    const std::lock_guard lock{mutex_};
    content.changes = content_.changes + 1;
    content.up = true;
    content_ = std::move(content);
}

bool Mirror::goDown() {
    const std::lock_guard lock{mutex_};
    content_.changes += content_.up ? 1 : 0;
    return std::exchange(content_.up, false);
}

const std::string* valueOf(const Content& content, std::string_view name, std::size_t& place) {
    place = placeOf(*content.definitions, name);
    return place < content.values.size() && content.values[place] ? &*content.values[place]
                                                                  : nullptr;
}

bool isWanted(std::string_view name, const std::vector<std::string>& prefixes) {
    return prefixes.empty() ||
           std::any_of(prefixes.begin(), prefixes.end(),
                       [&](const std::string& prefix) { return name.starts_with(prefix); });
}

} // namespace kelconf::web
