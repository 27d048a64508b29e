// What a device root's sinks record is exactly what was sent to them, in order and at once.
#include "support/device_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace {

using kelconf::test::DeviceLog;
using kelconf::test::texts;

// Opens, writes and closes, as a program that logs does.
void writeConsole(const std::string& bytes) {
    std::ofstream console("/dev/console");
    ASSERT_TRUE(console << bytes << std::flush);
}

TEST(DeviceLog, SyslogRecordsKeepEveryByte) {
    std::string all;
    for (int byte = 1; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    const std::string cases[] = {"plain",
                                 "",
                                 "ends in a line\n",
                                 "\n\n two\nlines",
                                 "\\n",
                                 "a\\x41b",
                                 "\\",
                                 "\x1b[1;31mred\x1b[0m",
                                 "a: b: c",
                                 all,
                                 std::string(8000, 'x')};
    DeviceLog log;
    for (const std::string& text : cases) {
        syslog(LOG_INFO, "%s", text.c_str());
    }
    const auto records = log.take();
    EXPECT_EQ(texts(records.syslog), std::vector<std::string>(std::begin(cases), std::end(cases)));
    EXPECT_EQ(records.console, "");
    ASSERT_FALSE(records.syslog.empty());
    EXPECT_EQ(records.syslog[0].ident, "device_log_test");
    EXPECT_EQ(records.syslog[0].facility, LOG_USER);
}

TEST(DeviceLog, PrioritiesAreKept) {
    DeviceLog log;
    const int priorities[] = {LOG_ERR, LOG_WARNING, LOG_INFO, LOG_DEBUG};
    for (const int priority : priorities) {
        syslog(priority, "x");
    }
    std::vector<int> seen;
    for (const auto& record : log.take().syslog) {
        seen.push_back(record.priority);
    }
    EXPECT_EQ(seen, std::vector<int>(std::begin(priorities), std::end(priorities)));
}

TEST(DeviceLog, ConsoleBytesArriveRaw) {
    std::string all = "[09:05:03][x]\x1b[1;33mtext\n\x1b[0m\r\n\t";
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    DeviceLog log;
    writeConsole(all);
    writeConsole("no line end");
    EXPECT_EQ(log.take().console, all + "no line end");
    EXPECT_EQ(log.take().console, "") << "each record is returned once";
}

TEST(DeviceLog, NothingIsLostInAFlood) {
    DeviceLog log;
    std::vector<std::string> sent;
    std::string console;
    for (int i = 0; i < 3000; ++i) {
        sent.push_back("record " + std::to_string(i) + std::string(200, '.'));
        syslog(LOG_INFO, "%s", sent.back().c_str());
        console += sent.back();
    }
    writeConsole(console); // more than a pseudo terminal holds
    const auto records = log.take();
    EXPECT_TRUE(texts(records.syslog) == sent) << records.syslog.size() << " records";
    EXPECT_TRUE(records.console == console) << records.console.size() << " bytes";
}

TEST(DeviceLog, RecordsOfOtherProcessesCount) {
    DeviceLog log;
    // NOLINTNEXTLINE(cert-env33-c): the command is this one
    ASSERT_EQ(std::system("logger -t other 'from a shell' && printf shell >/dev/console"), 0);
    const auto records = log.take();
    ASSERT_EQ(records.syslog.size(), 1U);
    EXPECT_EQ(records.syslog[0].ident, "other");
    EXPECT_EQ(records.syslog[0].text, "from a shell");
    EXPECT_EQ(records.console, "shell");
}

TEST(DeviceLog, TheConsoleIsATerminalWithoutInput) {
    const int fd = open("/dev/console", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(isatty(fd), 1);
    char byte = 0;
    EXPECT_EQ(read(fd, &byte, 1), -1) << "nothing is echoed back";
    close(fd);
}

TEST(WithoutTimes, ReplacesWholeStampsOnly) {
    using kelconf::test::withoutTimes;
    EXPECT_EQ(withoutTimes("[09:05:03][x]a\n[23:59:59][y]b"), "[TIME][x]a\n[TIME][y]b");
    EXPECT_EQ(withoutTimes("[9:05:03] [09-05-03] [09:05:03"), "[9:05:03] [09-05-03] [09:05:03");
}

} // namespace
