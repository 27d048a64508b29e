// Whether this process can still have what libzmq takes for granted: it ends the process when it
// lacks a descriptor, a thread or memory in the middle of a step.
//
// Each call takes all of it for a moment and gives it back; other threads of the program may be
// faster with what is left. False with errno set.
#pragma once

namespace kelconf {

bool roomForContext();    // the threads of a context, and its first connection
bool roomForConnection(); // one more connection
} // namespace kelconf
