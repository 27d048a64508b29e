// keldebug: the exact records of both sinks, read from a real /dev/log and a real console.

#include "log/keldebug.h"
#include "support/device_log.h"
#include "support/files.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <syslog.h>

#include <filesystem>
#include <thread>

namespace kelconf::test {
namespace {

class Log : public testing::Test {
  protected:
    void SetUp() override {
        prctl(PR_SET_NAME, "cam");
        log.take();
    }
    DeviceLog log;
};

TEST_F(Log, LevelsSelectPriorityAndColour) {
    const struct {
        std::int32_t level;
        int priority;
        const char* console;
    } cases[] = {
        {0, LOG_INFO, "[TIME][cam]text 7\n"},
        {1, LOG_WARNING, "[TIME]\x1b[1;33m[cam]text 7\n\x1b[0m"},
        {2, LOG_ERR, "[TIME]\x1b[1;31m[cam]text 7\n\x1b[0m"},
        {7, LOG_ERR, "[TIME]\x1b[1;31m[cam]text 7\n\x1b[0m"},
        {-1, LOG_ERR, "[TIME]\x1b[1;31m[cam]text 7\n\x1b[0m"},
    };
    for (const auto& c : cases) {
        keldebug(c.level, kToBoth, "text %d\n", 7);
        const LogRecords records = log.take();
        ASSERT_EQ(records.syslog.size(), 1U);
        EXPECT_EQ(records.syslog[0].priority, c.priority);
        EXPECT_EQ(records.syslog[0].text, "[cam]text 7\n");
        EXPECT_EQ(withoutTimes(records.console), c.console) << c.level;
    }
}

TEST_F(Log, DestinationsSelectSinks) {
    const struct {
        std::uint8_t destination;
        bool syslog, console;
    } cases[] = {
        {0, true, false}, {1, false, true}, {2, true, true}, {3, true, true}, {255, true, true}};
    for (const auto& c : cases) {
        keldebug(0, c.destination, "no line end");
        const LogRecords records = log.take();
        EXPECT_EQ(records.syslog.size(), c.syslog ? 1U : 0U) << int{c.destination};
        EXPECT_EQ(withoutTimes(records.console), c.console ? "[TIME][cam]no line end" : "");
    }
}

TEST_F(Log, LongMessagesAreCut) {
    keldebug(2, 2, "%s\n", std::string(5000, 'm').c_str());
    const LogRecords records = log.take();
    const std::string cut = "[cam]" + std::string(4095, 'm');
    EXPECT_EQ(withoutTimes(records.console), "[TIME]\x1b[1;31m" + cut + "\x1b[0m");
    ASSERT_EQ(records.syslog.size(), 1U);
    EXPECT_EQ(records.syslog[0].text, cut);
}

TEST_F(Log, TextIsNeverAFormat) {
    keldebug(0, 2, "%s", "100%n%s");
    EXPECT_EQ(withoutTimes(log.take().console), "[TIME][cam]100%n%s");
}

TEST_F(Log, ThreadsLogWholeRecords) {
    constexpr int kEach = 50;
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
        EXPECT_TRUE(record.text == "[cam]" + std::string(200, 'a') ||
                    record.text == "[cam]" + std::string(200, 'b'));
    }
}

TEST(ProcessName, GoesIntoTheBufferAsFarAsItFits) {
    prctl(PR_SET_NAME, "exactly15chars_");
    const struct {
        std::int32_t size;
        const char* name;
    } cases[] = {{256, "exactly15chars_"}, {16, "exactly15chars_"}, {6, "exact"}, {1, ""}};
    for (const auto& c : cases) {
        char buffer[300] = {};
        buffer[c.size - 1] = '#'; // the last byte is never written
        EXPECT_EQ(findNameByPID(buffer, c.size, getpid()), 1);
        EXPECT_EQ(buffer[c.size - 1], '#');
        buffer[c.size - 1] = '\0';
        EXPECT_STREQ(buffer, c.name);
    }
    char untouched[8] = "as is";
    EXPECT_EQ(findNameByPID(untouched, 8, 1 << 30), 0);
    EXPECT_EQ(findNameByPID(untouched, 8, -1), 0);
    EXPECT_STREQ(untouched, "as is");
}

} // namespace
} // namespace kelconf::test
