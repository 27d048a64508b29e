// Diagnostics: the one log function of the system and its two sinks.
//
// A record goes to the system log (syslog, format "[NAME]MESSAGE", the platform's default ident
// and facility) and to the device console ("[HH:MM:SS][NAME]MESSAGE" with a colour by level),
// NAME being the command name of the process as /proc/PID/status gives it. There is no
// threshold and no configuration. Messages carry their own line end.
//
// Thread-safe without a lock: all buffers live in the call. Nothing is cached between calls.
// Failures of a sink are silent; a record is never a reason to stop.
#pragma once

#include <cstdint>

namespace kelconf {

// Severity: LOG_INFO without colour, LOG_WARNING in bold yellow, LOG_ERR in bold red.
// Any value other than these two counts as an error.
inline constexpr int kLogInfo = 0;
inline constexpr int kLogWarning = 1;
inline constexpr int kLogError = 2;

// Sinks. Any value other than these two means both.
inline constexpr std::uint8_t kToSyslog = 0;
inline constexpr std::uint8_t kToConsole = 1;
inline constexpr std::uint8_t kToBoth = 2;

// Logs one record. The formatted message is cut to 4095 characters.
void keldebug(std::int32_t level, std::uint8_t destination, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// The system-log sink: one syslog record unless `destination` is kToConsole.
void writeSyslog(std::int32_t level, std::uint8_t destination, const char* process_name,
                 const char* message);

// Copies the command name of process `pid` (at most `size` - 1 bytes, zero-padded) to `buffer`.
// The last byte of the buffer is never written: clear it first to have the name terminated.
// Returns 1 when the process's status file could be opened, 0 when not (buffer untouched).
std::int32_t findNameByPID(char* buffer, std::int32_t size, std::int32_t pid);

} // namespace kelconf
