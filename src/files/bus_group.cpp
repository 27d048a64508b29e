#include "files/bus_group.h"

#include <grp.h>
#include <unistd.h>

#include <array>

namespace kelconf {

namespace {

constexpr const char* kGroupName = "kelbus";

std::optional<gid_t> lookUpGroup() {
    group record{};
    group* found = nullptr;
    std::array<char, 4096> texts{};
    if (getgrnam_r(kGroupName, &record, texts.data(), texts.size(), &found) != 0 ||
        found == nullptr) {
        return {};
    }
    return record.gr_gid;
}

} // namespace

std::optional<gid_t> busGroup() {
    static const std::optional<gid_t> group_id = lookUpGroup();
    return group_id;
}

void shareWithBusGroup(const char* path) {
    if (const auto group_id = busGroup()) {
        // Refused to a user outside the group: the file then stays the user's alone.
        [[maybe_unused]] const int result = lchown(path, static_cast<uid_t>(-1), *group_id);
    }
}

} // namespace kelconf
