// What a device root's sinks record is exactly what was sent to them, in order and at once.
#include "support/device_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace kelconf::test {
namespace {

TEST(DeviceLog, KeepsEveryByteAndRecordOnce) {
    std::string bytes;
    for (int byte = 1; byte < 256; ++byte) {
        bytes += static_cast<char>(byte);
    }
    std::vector<std::string> sent{"",   "\n\n two\nlines", "\\n", "a\\x41b",
                                  "\\", "a: b: c",         bytes, std::string(8000, 'x')};
    sent.resize(3000, "record" + std::string(200, '.')); // also in a flood
    DeviceLog log;
    std::string console = bytes + '\0';
    for (const std::string& text : sent) {
        syslog(LOG_WARNING, "%s", text.c_str());
        console += text;
    }
    ASSERT_TRUE(std::ofstream("/dev/console") << console << std::flush);
    const LogRecords records = log.take();
    EXPECT_TRUE(texts(records.syslog) == sent) << records.syslog.size() << " records";
    EXPECT_TRUE(records.console == console) << records.console.size() << " bytes";
    EXPECT_EQ(records.syslog.at(0).ident, "device_log_test");
    EXPECT_EQ(records.syslog.at(0).priority, LOG_WARNING);
    // NOLINTNEXTLINE(cert-env33-c): the command is this one
    ASSERT_EQ(std::system("logger -t other 'from a shell' && printf shell >/dev/console"), 0);
    const LogRecords more = log.take();
    EXPECT_EQ(texts(more.syslog), std::vector<std::string>{"from a shell"});
    EXPECT_EQ(more.console, "shell");
}

TEST(DeviceLog, TheConsoleIsATerminalWithoutInput) {
    const int fd = open("/dev/console", O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(isatty(fd), 1);
    char byte = 0;
    EXPECT_EQ(read(fd, &byte, 1), -1) << "nothing is echoed back";
    close(fd);
    EXPECT_EQ(withoutTimes("[09:05:03][x]a\n[23:59:59] [9:05:03] [09:05:03"),
              "[TIME][x]a\n[TIME] [9:05:03] [09:05:03");
}

} // namespace
} // namespace kelconf::test
