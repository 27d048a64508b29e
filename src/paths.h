// Every fixed path of the system, in one place. All are absolute; the programs take no
// options that change them. A private device root (scripts/device) gives each test its own.
// The addresses of the bus endpoints stand in bus/endpoints.h.
#pragma once

namespace kelconf::paths {

// Parameter trees, read only.
inline constexpr const char* kNeutralTree = "/etc/neutral_tree.xml";
inline constexpr const char* kExtTree = "/etc/ext_tree.xml";
inline constexpr const char* kNeutralTreeMd5 = "/mnt/nand/conf/neutral_tree.xml.md5";
inline constexpr const char* kExtTreeMd5 = "/mnt/nand/conf/ext_tree.xml.md5";

// Factory defaults.
inline constexpr const char* kDefaultDb = "/mnt/nand/conf/default.db";
inline constexpr const char* kDefaultDbMd5 = "/mnt/nand/conf/default.db.md5";
inline constexpr const char* kDefaultDbJournal = "/mnt/nand/conf/default.db-journal";
inline constexpr const char* kDefaultDbWal = "/mnt/nand/conf/default.db-wal";
inline constexpr const char* kDefaultDbShm = "/mnt/nand/conf/default.db-shm";

// Live values and their mirror.
inline constexpr const char* kLiveDb = "/mnt/nand/conf/conf.db";
inline constexpr const char* kLiveDbMd5 = "/mnt/nand/conf/conf.db.md5";
// The change counter of the live database when it was last sealed (live/seal.h).
inline constexpr const char* kLiveDbSeal = "/mnt/nand/conf/conf.db.seal";
inline constexpr const char* kLiveDbJournal = "/mnt/nand/conf/conf.db-journal";
inline constexpr const char* kLiveDbWal = "/mnt/nand/conf/conf.db-wal";
inline constexpr const char* kLiveDbShm = "/mnt/nand/conf/conf.db-shm";
// A replacement in the making, its own sidecar, and what SQLite may leave beside it.
inline constexpr const char* kLiveNew = "/mnt/nand/conf/conf.db.new";
inline constexpr const char* kLiveNewMd5 = "/mnt/nand/conf/conf.db.new.md5";
inline constexpr const char* kLiveNewJournal = "/mnt/nand/conf/conf.db.new-journal";
// The first damaged live database, kept for a look.
inline constexpr const char* kLiveEvidence = "/mnt/nand/conf/conf.db.damaged";
// Copy of a live database that cannot be read in its place, in memory and gone after the load.
inline constexpr const char* kLiveCopy = "/tmp/kelbus/conf.db";
inline constexpr const char* kLiveCopyJournal = "/tmp/kelbus/conf.db-journal";
// The live values for readers beside the bus (view/layout.h), in memory.
inline constexpr const char* kView = "/tmp/kelbus/view";
inline constexpr const char* kBackupDb = "/mnt/backup/conf/conf_backup.db";
inline constexpr const char* kBackupDbMd5 = "/mnt/backup/conf/conf_backup.db.md5";
inline constexpr const char* kBackupDbJournal = "/mnt/backup/conf/conf_backup.db-journal";

// The directories that hold them.
inline constexpr const char* kConfDirectory = "/mnt/nand/conf";
inline constexpr const char* kBackupDirectory = "/mnt/backup/conf";

// A value that contains this text names a file in that directory.
inline constexpr const char* kFileStorage = "/mnt/nand/conf/fileStorage/";

// Who may use the web.
inline constexpr const char* kWebAccounts = "/mnt/nand/web/accounts";

// What the kernel gives.
inline constexpr const char* kConsole = "/dev/console";
inline constexpr const char* kNull = "/dev/null";
inline constexpr const char* kTemporary = "/tmp";
inline constexpr const char* kShell = "/bin/sh";                 // POSIX puts it there
inline constexpr const char* kProcessStatus = "/proc/%d/status"; // a format, for a process id

} // namespace kelconf::paths
