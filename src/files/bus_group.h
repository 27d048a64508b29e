// The group that may use the bus and read its files: `kelbus`, where the system has it.
#pragma once

#include <sys/types.h>

#include <optional>

namespace kelconf {

// Looked up in the system's group file, once in the process. Empty where there is no such group.
std::optional<gid_t> busGroup();

// Gives the file to the group; its permission bits stay. Does nothing without the group.
void shareWithBusGroup(const char* path);

} // namespace kelconf
