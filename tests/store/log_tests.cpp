// keldebug: the exact records of both sinks, read from a real /dev/log and a real console.

#include "log/keldebug.h"
#include "support/device_log.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
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
        {-1, 255, "text\n", LOG_ERR, red + "text\n\x1b[0m"},
        {0, 0, "no line end", LOG_INFO, ""},
        {0, 1, "100%n%s", -1, "[TIME][cam]100%n%s"},
        {7, 3, cut + "mmm\n", LOG_ERR, red + cut + "\x1b[0m"},
    };
    prctl(PR_SET_NAME, "cam");
    DeviceLog log;
    for (const auto& c : cases) {
        keldebug(c.level, c.destination, "%s", c.text.c_str());
        const LogRecords records = log.take();
        EXPECT_EQ(withoutTimes(records.console), c.console);
        ASSERT_EQ(records.syslog.size(), c.priority < 0 ? 0U : 1U) << c.console;
        if (c.priority >= 0) {
            EXPECT_EQ(records.syslog[0].priority, c.priority);
            EXPECT_EQ(records.syslog[0].text, "[cam]" + c.text.substr(0, cut.size()));
        }
    }
}

TEST(Log, TheConsoleShowsLocalTime) {
    DeviceLog log;
    for (const char* zone :
         {"ABC-3:17", "ABC-9:17"}) { // one at least has an hour unlike the second
        setenv("TZ", zone, 1);
        tzset();
        std::string stamps[2];
        for (std::string& stamp : stamps) {
            const std::time_t now = std::time(nullptr);
            stamp.resize(10);
            std::strftime(stamp.data(), 11, "[%H:%M:%S]", std::localtime(&now));
            keldebug(0, kToConsole, "!");
        }
        const std::string shown = log.take().console.substr(0, 10);
        EXPECT_TRUE(shown == stamps[0] || shown == stamps[1]) << shown << " at " << stamps[0];
    }
}

TEST(Log, ThreadsLogWholeRecords) {
    prctl(PR_SET_NAME, "cam");
    DeviceLog log;
    const auto burst = [](char mark) {
        for (int i = 0; i < 50; ++i) {
            keldebug(0, kToSyslog, "%s", std::string(200, mark).c_str());
        }
    };
    std::jthread{burst, 'a'}, std::jthread{burst, 'b'};
    const LogRecords records = log.take();
    EXPECT_EQ(records.syslog.size(), 100U);
    for (const auto& record : records.syslog) {
        EXPECT_EQ(record.text, "[cam]" + std::string(200, record.text.back()));
    }
}

TEST(ProcessName, FillsTheBufferButForItsLastByte) {
    prctl(PR_SET_NAME, "exactly15chars_");
    for (const std::int32_t size : {256, 16, 6, 1}) {
        std::string buffer(300, '#');
        EXPECT_EQ(findNameByPID(buffer.data(), size, getpid()), 1);
        std::string expected = "exactly15chars_" + std::string(300, '\0');
        expected.resize(static_cast<std::size_t>(size) - 1);
        EXPECT_EQ(buffer, expected + std::string(300 - expected.size(), '#'));
    }
    std::string untouched = "as is";
    EXPECT_EQ(findNameByPID(untouched.data(), 5, 1 << 30) + findNameByPID(untouched.data(), 5, -1),
              0);
    EXPECT_EQ(untouched, "as is");
}

} // namespace
} // namespace kelconf::test
