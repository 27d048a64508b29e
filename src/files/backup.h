// The backup copy of the live database, and the start of background threads.
//
// backup_pending says that the live database was written since the last copy. A write-back pass
// sets it and createBackupDBTask clears it, both while they hold backup_mutex, which also keeps
// a copy and a pass apart. Lock order: bus/service_locks.h; the backup task takes no other lock.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace kelconf {

extern pthread_mutex_t backup_mutex;
extern std::atomic<std::uint8_t> backup_pending;

// Holds backup_mutex until the end of the block.
class [[nodiscard]] BackupSection {
  public:
    BackupSection() { pthread_mutex_lock(&backup_mutex); }
    ~BackupSection() { pthread_mutex_unlock(&backup_mutex); }
    BackupSection(const BackupSection&) = delete;
    BackupSection& operator=(const BackupSection&) = delete;
    BackupSection(BackupSection&&) = delete;
    BackupSection& operator=(BackupSection&&) = delete;
};

// Starts a detached thread. 0, or the error number. Nobody waits for it or gets its id.
std::int32_t CreateThread(void* (*routine)(void*), void* argument);

// Makes `destination` (mode 0640 when new) the same as the source, byte for byte and of its length,
// and flushes it once. Only blocks of 4 KiB that differ are written: a copy of a file that changed
// little costs little flash. Cut short on its way, the destination is a mixture of both files,
// which the sidecar of neither matches. -1 when the source is missing (the destination is not
// touched) or the destination cannot be opened. Otherwise 0, also when a read or a write failed on
// the way; the destination then ends about there.
std::int32_t copyFile(const char* source, const char* destination);

// The live database onto its backup; the result of copyFile.
std::int32_t creatBackupDB();

// When a copy is pending: takes it, seals it with its sidecar and clears the flag, all under
// backup_mutex; then flushes the file systems. Otherwise touches no file.
void createBackupDBTask();

} // namespace kelconf
