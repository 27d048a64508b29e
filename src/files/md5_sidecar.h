// MD5 sidecars and presence checks.
//
// A sidecar holds the MD5 digest (RFC 1321) of the file it guards as 16 raw bytes: no
// hexadecimal text, no line end, no header. Only its first 16 bytes are ever read; what a
// shorter one lacks counts as zero bytes. It is written after its file is complete, so a
// matching sidecar vouches for a complete file.
//
// No state and no lock. The callers that write the live pair or the backup pair hold
// backup_mutex; a check while somebody writes the guarded file may see a mismatch.
#pragma once

namespace kelconf {

// True when the file can be read for its digest; else this is logged ("create hash failed").
bool checkHash(const char* file);

// Writes the digest of `file` to the first 16 bytes of `sidecar` and flushes it; a new sidecar
// gets mode 0644. When the file cannot be read this is logged and the sidecar is not touched;
// when the sidecar cannot be opened it stays as it is, silently. True when the digest is on disk.
bool createFileMD5(const char* file, const char* sidecar);

// True when both files exist, the digest could be computed and equals the sidecar's. Logs nothing.
bool checkFileMD5(const char* file, const char* sidecar);

// The databases. An absent sidecar is false without a message; any other false is logged.
bool checkDefaultConfigDBMD5();
bool checkConfigDBMD5();
bool checkConfigBackupDBMD5();

// The trees. Any false is logged as an update.
bool checkXMLFileStatus();
bool checkExtXMLFileStatus();

// Presence: true when stat succeeds, whatever kind of file it is. Absence is logged.
bool checkDefaultFile();
bool checkConfFile();
bool checkConfBackupFile();
// Absence is not logged, any other reason why there is no answer is; a failure of the storage is
// noted too (files/storage_fault.h).
bool extTreeFileExist();

} // namespace kelconf
