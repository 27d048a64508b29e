// The ground that the daemon stands on before it touches a database or a socket: the directory of
// the bus, the lock that keeps it the only one, the file modes and the limits of the process.
//
// All of these log their failures.
#pragma once

#include "base/fd.h"

#include <sys/types.h>

namespace kelconf {

// Opens the directory at `path`, made with mode 0755 where it is missing. An existing one must be
// a real directory, not a link to one, and belong to `owner`: in a place where everybody may make
// names, anything else was put there by somebody else. Write permission for others than the owner
// is taken away; where restrictFileModes has taken on the bus's group, the directory is given to
// it, an older one as well. Empty when the directory must not be used.
Fd openRuntimeDirectory(const char* path, uid_t owner);

// Takes the daemon's lock, the file kelconfd.lock in the directory, for as long as the result
// lives (the kernel drops it with the process). Nothing else is touched. Empty when another
// instance holds it (the log names its process) or it cannot be had.
Fd lockInstance(const Fd& directory);

// From here on new files and sockets are for the daemon's user alone or, where the system has the
// bus's group and the process may take it on as its own, for that group as well. Before any other
// thread and any file.
void restrictFileModes();

// Room for thousands of connections: raises the limit of open descriptors as far as the system
// lets it. Each client connection costs one; running out would end the process.
void raiseDescriptorLimit();

} // namespace kelconf
