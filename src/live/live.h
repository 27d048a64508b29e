// The live store: the current value of every stored parameter, on flash, through any end of the
// process and of the power. This header tells the story; the modules have the details.
//
// On flash (src/paths.h) lie the live database with its sidecar and its witness (live/seal.h), and
// its backup with a sidecar. In memory is ParamList, and what the file lacks of it (live/owed.h).
//
//   start    readyLiveStore judges the file (live/judge.h), puts a good one into its place
//            (live/recovery.h, live/replacement.h) and completes it (live/completion.h);
//            loadLiveValues fills ParamList from it and settles its passwords (live/load.h,
//            live/password_state.h); connectLiveStore lets the service store through it.
//   changes  a write-back pass stores its rows in one transaction and seals the file
//            (live/table.h); its sync puts all of it on disk before the answer goes out.
//   upkeep   tendLiveStore makes a file anew that was lost under the service (live/renewal.h),
//            stores what could not be stored, and takes the backup, at its own pace
//            (live/backup_pace.h), of a file that was compared with memory, row by row.
//
// What makes it safe, whatever a power failure keeps of the writes that were not flushed:
//   1. Every transaction finds the file sealed, and the seal on disk. So there is never more than
//      one transaction to think about.
//   2. The bytes are compared with the sidecar before any journal is rolled back. A journal that
//      was not flushed, or whose removal was lost, does no harm to a file that matches.
//   3. Another file takes the live name only complete, flushed, and with a sidecar of its own.
//   4. The backup is overwritten only while the live file is sealed, on disk, and holds what memory
//      says it holds.
//
// Locks: backup_mutex guards the files, the parameter lock the lists; in that nesting, the
// parameter lock outside.
#pragma once

#include "live/load.h"
#include "live/recovery.h"

namespace kelconf {

// Lets the service store its changes here (service/storage.h). Before its threads start.
void connectLiveStore();

// One round of upkeep; where a backup is pending and `backup_due`, it is taken. True when it was,
// or was tried: it stays pending where a write failed. Takes the get-all lock where passwords are
// to be stored anew, the parameter lock and backup_mutex. At next to no cost when there is nothing
// to do.
bool tendLiveStore(bool backup_due);

// Logs how many changes are lost with the process. Takes the parameter lock.
void reportUnstored();

} // namespace kelconf
