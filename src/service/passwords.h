// Stored passwords, and two operations on private parameters.
//
// A parameter whose name contains "password" or "passwd" (exactly so written) holds a password.
// Its live value is plain. Its stored value is plain as well, or scrambled: the bytes shifted by a
// fixed key, then base64. That keeps a password from being read in passing; it is no encryption.
// A value is cut before its first byte that scrambles to 0, with the key in use "=". An empty value
// is stored empty.
//
// The parameter private.encrypt_campass says how passwords are stored: "1" scrambled, "0" plain.
// It exists only where a parameter tree defines it. The truth, however, is kept with the rows: see
// live/password_state.h.
#pragma once

#include <cstdint>
#include <string>

namespace kelconf {

// Nonzero: a write-back pass stores passwords scrambled. Set at start, and
// under the parameter lock afterwards (live/password_state.h).
extern std::uint8_t support_campass;

inline constexpr std::int32_t kScramblingKey = 0x6B3D; // its low eight bits count
inline constexpr const char* kPasswordSwitch = "private.encrypt_campass";

bool isPasswordName(const char* name);

// Shift each byte of the text in place by -key or +key, modulo 256. A byte that becomes 0 ends it.
void simple_encrypt(char* text, std::int32_t key);
void simple_decrypt(char* text, std::int32_t key);

// The stored form of a plain password.
std::string scrambledForm(const char* plain);

// Converts every stored password to the scrambled form, once: writes them and the switch in one
// transaction, then the sidecar and the backup with its sidecar. The live values must be plain.
// 1 when the switch is "1" already; otherwise 0, also without a switch. Takes the parameter lock
// while it reads them; needs the database for itself, as the start has it.
std::int32_t encryptAllPasswordInDB();

// After loading: turns the live values of passwords plain when checkPasswordEncryption says that
// they were stored scrambled. Takes no lock.
void restorPlainPassword();

// 1 when the switch exists and is anything but exactly "0".
std::int32_t checkPasswordEncryption();
// 1 when the switch exists.
std::int32_t validatePrivateCampass();

// Sets the live value of private.ext_features, where it exists; a null text does nothing. Takes no
// lock: before the threads start, or under the parameter lock.
void setExtFeatureStatus(const char* text);

} // namespace kelconf
