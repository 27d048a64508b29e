// The log records of the device root that a test program runs in, exactly as they were sent.
//
// scripts/device records both sinks outside the root and shows the files at /var/log, so what a
// program has just logged arrives there a moment later. take() waits for it: it sends a marker
// through both sinks, which keep their order, and reads up to it. Use one DeviceLog at a time,
// only inside a device root. One thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf::test {

struct SyslogRecord {
    int facility;      // LOG_USER where the program sets none
    int priority;      // severity: LOG_INFO, LOG_WARNING, LOG_ERR...
    std::string ident; // the sender's program name, cut at the first ": "
    std::string text;  // all that follows "ident: ", control bytes as they were sent
};

struct LogRecords {
    std::vector<SyslogRecord> syslog;
    std::string console; // raw bytes, colour sequences and time stamps included
};

class DeviceLog {
  public:
    // Begins after everything logged so far.
    DeviceLog();

    // All records of both sinks since the last call (or the construction), from every process
    // of the root that has sent them before the call. Throws std::runtime_error when a sink does
    // not deliver within 30 seconds.
    LogRecords take();

  private:
    std::size_t syslog_offset_ = 0;
    std::size_t console_offset_ = 0;
};

// The texts alone, in order.
std::vector<std::string> texts(const std::vector<SyslogRecord>& records);

// Replaces each time stamp "[HH:MM:SS]" (digits only) by "[TIME]", to compare console records.
std::string withoutTimes(std::string_view console);

} // namespace kelconf::test
