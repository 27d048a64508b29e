// The seal of the live database: its MD5 sidecar, and beside it the witness of the last sealing.
//
// A file that matches its sidecar as it stands holds what was sealed last, whatever journal lies
// beside it. One that differs is damaged, or was written after the sealing: the values stored by
// that were perhaps acknowledged and must be kept. SQLite tells the two apart at no cost: every
// transaction that changes the file counts up the change counter in its header, in the same
// commit. The witness (conf.db.seal) holds that counter as it was at the sealing: ten decimal
// digits, a blank, 32 hexadecimal digits, a line feed. The digits are the MD5 digest of the counter
// and the sidecar: a witness speaks for the one sidecar that it was written with, and damage to
// either leaves it unable to speak. A counter ahead of such a witness means that SQLite has
// written since; nothing but damage explains any other difference.
//
// So nothing has to be flushed before a write, as long as every transaction finds the file sealed:
// there is never more than one between two sealings. The witness needs no flush of its own. It is
// written after the sidecar is on disk and flushed by the sync at the end of the same step, before
// the next transaction begins; where a power failure keeps an old one, the sidecar beside it
// matches and the witness is not asked.
//
// The file is read by descriptors of their own, which drop SQLite's locks of this process when
// closed: never while a connection of the process is in a transaction (the callers hold
// backup_mutex, which guards the memory of the last sealing as well).
#pragma once

namespace kelconf {

// Writes the live database's sidecar, then the witness, and remembers what the file looked like.
// With a journal beside the file, an unfinished write that no other process is at, it first lets
// SQLite undo that; while the journal stays there is no seal, since a digest taken now would be
// that of a torn file. False, with the reason logged, when the file is not sealed afterwards.
bool sealLiveDatabase();

// The same with a flush of everything (sync): before the next transaction, and before the backup
// gives up the older copy.
bool settleLiveDatabase();

enum class LiveSeal {
    kMatches,      // as it was sealed
    kWrittenSince, // transactions were committed after the last sealing; otherwise unproven
    kBroken        // differs without such an explanation, or no sidecar
};

// A journal that is to be rolled back must be before. Logs a digest that differs.
LiveSeal judgeLiveSeal();

// Whether the bytes of the live database as they stand are those of its sidecar, or of the one that
// a replacement was given before it took the name (live/replacement.h). Logs nothing.
bool sealedAsItStands();

// Whether the sidecars of the live database and of its backup are alike. After a backup, whose
// sidecar is taken of what was written, that tells a whole copy.
bool backupHasSameDigest();

// After a verdict, without writing: takes the file as it is for the one that was sealed, and
// renews a witness that does not speak for it (a power failure may have kept an old one).
void trustLiveDatabase();

// Whether the file is the one that was sealed last by this process, at the cost of one stat: the
// same file, not written to since.
bool untouchedSinceSealing();

} // namespace kelconf
