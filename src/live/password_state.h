// How the passwords of the live database are stored, kept with the rows themselves.
//
// A mark in the file's header (PRAGMA user_version) says whether the password rows are scrambled
// and how many rows, in the order of their insertion, it speaks of. It is written in one
// transaction with the rows, so no interruption leaves half of them converted, and it travels with
// every copy of the file. Rows beyond that number were added later by a newer parameter tree and
// hold plain defaults (rows are never deleted). Layout of the number: bit 0 scrambled, bit 1 set
// where there is a mark, the rest the number of rows.
//
// The switch private.encrypt_campass is a parameter that clients can set and that trees give a
// default to; it alone decides only for a file without a mark.
//
// All but resettlePasswords runs at start, before the threads; markPasswordState with backup_mutex
// held, the others without: the conversion takes the parameter lock, which comes before it. Each
// leaves the file sealed and on disk.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelconf {

struct PasswordMark {
    bool present;
    bool scrambled;
    std::int64_t rows;
};

PasswordMark passwordMarkOf(std::int64_t user_version);

// The number for a file with so many rows.
std::int32_t scrambledMark(std::int64_t rows);
std::int32_t plainMark(std::int64_t rows);

// Gives a live database without a mark the one that its switch stands for, before the trees' new
// names are added. `fresh`: the file was just made, so all its passwords will be plain defaults.
void markPasswordState(bool fresh);

// What a file says of its passwords, to be read while its values cannot change (holdForReading of
// live/rows.h).
struct StoredPasswords {
    PasswordMark mark{};
    std::vector<std::string> added; // the names of the rows beyond the mark's number
    bool whole = true;              // else the file could not be read, again and again
};
StoredPasswords readStoredPasswords(const char* path);

// After loading from the live database: scrambles passwords that a newer tree added, brings the
// switch in line with the mark, makes the live passwords plain, converts a plain database, and lets
// the write-back store passwords the way the database then has them.
void settlePasswords(const StoredPasswords& stored);

// The same after loading from a file that is not to be written now: nothing is stored. `later`:
// resettlePasswords is to make up for what is left to do.
void adoptPasswords(const StoredPasswords& stored, bool later);

// The same when the live values are plain and stand in no file yet.
void adoptPlainPasswords();

// For Storage (service/storage.h).
bool storeConvertedPasswords();

// Whether the rows are as support_campass says.
bool passwordsSettled();

// Stores what the start could not, from the live values, in one attempt. Does nothing, at no
// cost, when all is settled. The get-all lock, since the listings read the switch under it, the
// parameter lock and backup_mutex are held.
void resettlePasswords();

} // namespace kelconf
