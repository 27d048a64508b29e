// Another file takes the live database's name.
//
// It is made as conf.db.new, complete and flushed, and given a sidecar of its own beside it
// (conf.db.new.md5). Only then it takes the name, and the sidecar its own after that. So
// whatever interrupts this, a start finds either the old file with the old sidecar, or the new one
// under either name with a sidecar that vouches for it: it is never taken for damaged, and where
// the old file is no good any more the new one is put into place then.
//
// Failures are logged. backup_mutex is held around all of it.
#pragma once

namespace kelconf {

// Removes what is left of a replacement and of its making.
void dropReplacement();

// Puts conf.db.new into the live file's place and seals it there. False when it could not be; it
// then has gone and the live file is as it was.
bool putReplacementInPlace();

// Whether a complete replacement was left by a process that came to its end before it had put it
// into place.
bool replacementWaits();

} // namespace kelconf
