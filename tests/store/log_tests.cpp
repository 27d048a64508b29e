// keldebug: the exact records of both sinks, read from a real /dev/log and a real console.

#include "log/keldebug.h"
#include "support/device_log.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <syslog.h>
#include <unistd.h>

#include <thread>

namespace kelconf::test {
namespace {

TEST(Log, RecordsAreExactInBothSinks) {
    const std::string red = "[TIME]\x1b[1;31m[cam]";
    const std::string cut(4095, 'm');
    const struct {
        std::int32_t level;
        std::uint8_t destination;
        std::string text;
        int priority; // in syslog, -1 for no record there
        std::string console;
    } cases[] = {
        {0, 2, "text\n", LOG_INFO, "[TIME][cam]text\n"},
        {1, 2, "text\n", LOG_WARNING, "[TIME]\x1b[1;33m[cam]text\n\x1b[0m"},
        {2, 2, "text\n", LOG_ERR, red + "text\n\x1b[0m"},
        {7, 3, "text\n", LOG_ERR, red + "text\n\x1b[0m"},
        {-1, 255, "text\n", LOG_ERR, red + "text\n\x1b[0m"},
        {0, 0, "no line end", LOG_INFO, ""},
        {0, 1, "100%n%s", -1, "[TIME][cam]100%n%s"},
        {2, 2, cut + "mmm\n", LOG_ERR, red + cut + "\x1b[0m"},
    };
    prctl(PR_SET_NAME, "cam");
    DeviceLog log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.console);
        keldebug(c.level, c.destination, "%s", c.text.c_str());
        const LogRecords records = log.take();
        EXPECT_EQ(withoutTimes(records.console), c.console);
        ASSERT_EQ(records.syslog.size(), c.priority < 0 ? 0U : 1U);
        if (c.priority >= 0) {
            EXPECT_EQ(records.syslog[0].priority, c.priority);
            EXPECT_EQ(records.syslog[0].text, "[cam]" + c.text.substr(0, cut.size()));
        }
    }
}

TEST(Log, ThreadsLogWholeRecords) {
    constexpr int kEach = 50;
    prctl(PR_SET_NAME, "cam");
    DeviceLog log;
    const auto burst = [](char mark) {
        for (int i = 0; i < kEach; ++i) {
            keldebug(0, kToSyslog, "%s", std::string(200, mark).c_str());
        }
    };
    std::thread a(burst, 'a');
    std::thread b(burst, 'b');
    a.join();
    b.join();
    const LogRecords records = log.take();
    EXPECT_EQ(records.syslog.size(), 2U * kEach);
    for (const auto& record : records.syslog) {
        EXPECT_EQ(record.text, "[cam]" + std::string(200, record.text.back()));
    }
}

TEST(ProcessName, GoesIntoTheBufferAsFarAsItFits) {
    prctl(PR_SET_NAME, "exactly15chars_");
    const std::pair<std::int32_t, const char*> cases[] = {
        {256, "exactly15chars_"}, {16, "exactly15chars_"}, {6, "exact"}, {1, ""}};
    for (const auto& [size, name] : cases) {
        char buffer[300] = {};
        buffer[size - 1] = '#'; // the last byte is never written
        EXPECT_EQ(findNameByPID(buffer, size, getpid()), 1);
        EXPECT_EQ(buffer[size - 1], '#');
        buffer[size - 1] = '\0';
        EXPECT_STREQ(buffer, name);
    }
    char untouched[8] = "as is";
    EXPECT_EQ(findNameByPID(untouched, 8, 1 << 30), 0);
    EXPECT_EQ(findNameByPID(untouched, 8, -1), 0);
    EXPECT_STREQ(untouched, "as is");
}

} // namespace
} // namespace kelconf::test
