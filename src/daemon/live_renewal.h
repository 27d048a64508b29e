// Makes the live database anew from memory while the service runs: where it was deleted or damaged
// under the service, or where the start found no storage that took it.
#pragma once

namespace kelconf {

// Does nothing, at next to no cost, when the file is there and takes changes, and while the flash
// is full or read-only. Takes the parameter lock and backup_mutex. The new file is complete,
// flushed and vouched for before it takes the name; whatever interrupts this leaves the old state.
// Type words come from what can still be read: the live file, its backup, the trees.
void renewLiveFile();

} // namespace kelconf
