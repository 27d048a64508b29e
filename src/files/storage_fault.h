// Whether the storage failed under the work that is being done.
//
// The operations on files and databases log their failures and go on. Most failures heal: a
// refused duplicate or an absent extension tree is ordinary. But a row, a commit, a compaction
// or a part of a tree that is missing because the storage (or memory) failed must never be
// vouched for by an MD5 sidecar, because a matching sidecar is taken for soundness ever after.
// Whoever meets such a failure notes it here; whoever seals a database asks first.
//
// One flag for the process, atomic, set by any thread.
#pragma once

namespace kelconf {

// Whether an errno says that the storage or the memory failed, which may be over at the next
// start, and not that a file is absent, closed to us or of the wrong kind.
[[nodiscard]] bool isStorageError(int error) noexcept;

void noteStorageFault() noexcept;
[[nodiscard]] bool storageFaultNoted() noexcept;
// For the start of the next piece of work, and for tests.
void clearStorageFault() noexcept;

} // namespace kelconf
