// Log records as tests compare them: "LEVEL MESSAGE" with keldebug's level and without the
// process name, e.g. "2 error: could not parse file ".
#pragma once

#include "support/device_log.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <string>
#include <vector>

namespace kelconf::test {

// All records that keldebug sent to both sinks; fails the test when the sinks differ.
inline std::vector<std::string> sameInBothSinks(const LogRecords& records) {
    std::vector<std::string> result;
    std::string console;
    for (const SyslogRecord& record : records.syslog) {
        const bool plain = record.priority == LOG_INFO;
        const bool warning = record.priority == LOG_WARNING;
        const std::string colour = warning ? "\x1b[1;33m" : "\x1b[1;31m";
        console += "[TIME]" + (plain ? record.text : colour + record.text + "\x1b[0m");
        const std::string level = plain ? "0 " : warning ? "1 " : "2 ";
        result.push_back(level + record.text.substr(record.text.find(']') + 1));
    }
    EXPECT_EQ(withoutTimes(records.console), console);
    return result;
}

} // namespace kelconf::test
