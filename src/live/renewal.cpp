#include "live/renewal.h"

#include "files/backup.h"
#include "files/md5_sidecar.h"
#include "live/content.h"
#include "live/files.h"
#include "live/judge.h"
#include "live/owed.h"
#include "live/password_state.h"
#include "live/replacement.h"
#include "live/seal.h"
#include "log/keldebug.h"
#include "paths.h"
#include "service/param_list.h"
#include "service/passwords.h"
#include "text/text.h"

#include <cstdint>

namespace kelconf {

namespace {

constexpr std::uint64_t kRowOverhead = 64;     // bytes of a row and its index entry, amply
constexpr std::uint64_t kFileOverhead = 65536; // journal, first pages

// Ample: names stand in the table and in its index, scrambled values are a third longer.
std::uint64_t sizeOfNewFile() {
    std::uint64_t bytes = kFileOverhead;
    for (std::uint32_t i = 0; const ParamElement* param = paramElementAt(i); ++i) {
        bytes += 2 * (strlens(param->name) + strlens(param->value)) + kRowOverhead;
    }
    return bytes;
}

// A file that somebody touched, and whether it still is what was stored.
bool holdsWhatWasStored() {
    if (sealedAsItStands()) {
        return true;
    }
    if (liveFile() == LiveFile::kUnread) {
        return judgeLiveDatabase() == LiveVerdict::kRecovered;
    }
    return readInFull(paths::kLiveDb) == Reading::kComplete && liveFileHoldsMemory();
}

bool renewalDue() {
    return liveFile() == LiveFile::kIncomplete || liveFileLost() ||
           (anyUnstored() && readInFull(paths::kLiveDb) == Reading::kFaulty);
}

bool makeReplacement() {
    dropReplacement();
    if (makeDatabase(paths::kLiveNew, rowsOfMemory(),
                     support_campass != 0 ? scrambledMark : plainMark) &&
        holdsMemory(paths::kLiveNew, true)) {
        return true;
    }
    dropReplacement();
    return false;
}

} // namespace

bool liveFileLost() {
    if (liveFile() == LiveFile::kLost) {
        return true;
    }
    if (untouchedSinceSealing() || (filePresent(paths::kLiveDb) && !LiveLock{})) {
        return false;
    }
    if (holdsWhatWasStored() && settleLiveDatabase()) {
        return false;
    }
    keldebug(kLogError, kToBoth,
             "live database was changed under the service, not used any more\n");
    setLiveFile(LiveFile::kLost);
    return true;
}

void renewLiveFile() {
    if (CheckParamListLength() == 0 || !roomFor(sizeOfNewFile()) ||
        (filePresent(paths::kLiveDb) && !LiveLock{})) {
        return;
    }
    const bool damaged = liveFile() == LiveFile::kLost;
    if (!makeReplacement()) {
        return;
    }
    if (damaged) {
        keepEvidence(Evidence::kMove);
    }
    if (putReplacementInPlace()) {
        protectStoredFiles();
        noteAllStored();
        setLiveFile(LiveFile::kWhole);
        backup_pending = 1;
        keldebug(kLogWarning, kToBoth, "live database made anew from memory\n");
    }
}

void renewWhereDue() {
    if (renewalDue()) {
        renewLiveFile();
    }
}

} // namespace kelconf
