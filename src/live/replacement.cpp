#include "live/replacement.h"

#include "files/md5_sidecar.h"
#include "live/files.h"
#include "live/judge.h"
#include "live/seal.h"
#include "log/keldebug.h"
#include "paths.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kelconf {

namespace {

// Its bytes are on disk already, by SQLite's commit or the copy that made it. From here on a start
// can tell that the file is whole.
bool vouchForReplacement() {
    return createFileMD5(paths::kLiveNew, paths::kLiveNewMd5) &&
           flushDirectory(paths::kConfDirectory);
}

// One name after the other, and each on disk before the next step.
bool takeName(const char* from, const char* to) {
    if (std::rename(from, to) == 0) {
        flushDirectory(paths::kConfDirectory);
        return true;
    }
    keldebug(kLogError, kToBoth, "cannot replace %s: %s\n", to, std::strerror(errno));
    return false;
}

} // namespace

void dropReplacement() {
    removeFile(paths::kLiveNewMd5); // first: what is left is then nothing to anybody
    removeFile(paths::kLiveNew);
    removeFile(paths::kLiveNewJournal);
}

bool putReplacementInPlace() {
    if (!vouchForReplacement() || !takeName(paths::kLiveNew, paths::kLiveDb)) {
        dropReplacement();
        return false;
    }
    // The old file's journal is nothing to the new one, which its sidecar tells from being torn.
    removeCompanions();
    if (takeName(paths::kLiveNewMd5, paths::kLiveDbMd5)) {
        trustLiveDatabase();
    } else {
        settleLiveDatabase();
    }
    return true;
}

bool replacementWaits() {
    return filePresent(paths::kLiveNew) && filePresent(paths::kLiveNewMd5) &&
           checkFileMD5(paths::kLiveNew, paths::kLiveNewMd5) &&
           readInFull(paths::kLiveNew) == Reading::kComplete;
}

} // namespace kelconf
