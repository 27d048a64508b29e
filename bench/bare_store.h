// Storing one value of the live database with nothing around it: the yardstick of a SET that is
// answered after the value is on flash.
#pragma once

namespace bench {

inline constexpr const char* kLiveDatabase = "/mnt/nand/conf/conf.db";
inline constexpr const char* kLiveSidecar = "/mnt/nand/conf/conf.db.md5";
inline constexpr const char* kLiveSeal = "/mnt/nand/conf/conf.db.seal";

// The MD5 digest of the live database into its sidecar, flushed. False when that failed.
bool bareDigest();

// Opens the database, PRAGMA synchronous = NORMAL, BEGIN, UPDATE, END, closes it; bareDigest;
// sync(). With `mark` it also does what the service adds to tell an interrupted write from
// damage: reads SQLite's change counter and writes it into the seal. False when the database is
// locked or anything failed.
bool bareSet(const char* name, const char* value, bool mark);

} // namespace bench
