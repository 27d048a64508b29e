// Makes the live database anew from memory while the service runs: where it was deleted, damaged or
// changed under the service, or where the start found no storage that took it.
#pragma once

namespace kelconf {

// Whether the live file is no longer what was stored last. At the cost of one stat where nobody
// but this process has written to it; otherwise its bytes are compared with the sidecar, and where
// they differ its rows with memory. A file that is lost is not written to any more (live/owed.h).
// A file that another process has locked is left for later. The parameter lock and backup_mutex
// are held.
bool liveFileLost();

// Makes the file anew, whatever it is; does nothing while the flash is full or read-only, or
// another process has the file locked. The new file is complete, compared with memory and vouched
// for before it takes the name (live/replacement.h). The parameter lock and backup_mutex are held.
void renewLiveFile();

// The same where there is a reason to: the file is lost, lacks rows, or refuses changes because its
// structure is damaged. At next to no cost where there is none.
void renewWhereDue();

} // namespace kelconf
