// Brings a live database that is believed up to the trees: its mode, its mark, its names.
#pragma once

namespace kelconf {

// Marks how the passwords of a file without that mark are stored (live/password_state.h); adds the
// names that the trees have and the table lacks, by the builders, only where there are any: a start
// that finds nothing new writes nothing. `fresh`: the file was just made and holds plain defaults.
//
// What the storage refuses is noted as a storage fault (files/storage_fault.h), which is cleared
// first. Each transaction finds the file sealed and on disk, and so it is afterwards. A neutral
// tree that does not parse ends the process with status 0. The main thread, backup_mutex held.
void completeLiveDatabase(bool fresh);

} // namespace kelconf
