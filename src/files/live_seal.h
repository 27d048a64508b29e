// The seal of the live database: its MD5 sidecar, and beside it the witness of the last sealing.
//
// A sidecar that differs from its file means damage, or a write that was interrupted before the
// sidecar was renewed: the values stored by it were acknowledged and must be kept. SQLite tells
// the two apart at no cost: every transaction that changes the file counts up the change counter
// in its header, in the same commit. The witness file (conf.db.seal: that counter as ten decimal
// digits and a line feed) is written after the sidecar. A counter ahead of the witness means that
// SQLite has written since; with equal counters nothing but damage explains a differing digest.
//
// So nothing has to be flushed before a write. The witness needs no flush of its own: it is
// written after the sidecar is on disk and flushed by the sync at the end of the same step; when
// an old one survives a power failure, the sidecar beside it matches, and the witness is not asked.
//
// No lock is taken. Both read the file by their own descriptor, which drops SQLite's locks of this
// process when closed: never while a connection of the process is in a transaction (the callers
// hold backup_mutex).
#pragma once

namespace kelconf {

// Writes the live database's sidecar, then the witness. Without a written sidecar the witness
// stays as it was.
void sealLiveDatabase();

enum class LiveSeal {
    kMatches,      // as it was sealed
    kWrittenSince, // transactions were committed after the last sealing; otherwise unproven
    kBroken        // differs without such an explanation, or no sidecar
};

// A journal that waits to be rolled back must be before. Logs a differing digest.
LiveSeal judgeLiveSeal();

} // namespace kelconf
