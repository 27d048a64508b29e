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

std::string everyByteFrom(int first) {
    std::string all;
    for (int byte = first; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    return all;
}

void writeConsole(const std::string& bytes) {
    ASSERT_TRUE(std::ofstream("/dev/console") << bytes << std::flush);
}

TEST(DeviceLog, KeepsEveryByteAndRecordOnce) {
    std::vector<std::string> sent{"",
                                  "\n\n two\nlines",
                                  "\\n",
                                  "a\\x41b",
                                  "\\",
                                  "a: b: c",
                                  everyByteFrom(1),
                                  std::string(8000, 'x')};
    for (int i = 0; i < 3000; ++i) { // also in a flood
        sent.push_back("record " + std::to_string(i) + std::string(200, '.'));
    }
    DeviceLog log;
    std::string console = everyByteFrom(0) + "\x1b[1;33m\r\n\t";
    for (const std::string& text : sent) {
        syslog(LOG_WARNING, "%s", text.c_str());
        console += text;
    }
    writeConsole(console); // more than a pseudo terminal holds
    writeConsole("no line end");
    const LogRecords records = log.take();
    EXPECT_TRUE(texts(records.syslog) == sent) << records.syslog.size() << " records";
    EXPECT_TRUE(records.console == console + "no line end") << records.console.size() << " bytes";
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
    EXPECT_EQ(withoutTimes("[09:05:03][x]a\n[23:59:59][y]b [9:05:03] [09:05:03"),
              "[TIME][x]a\n[TIME][y]b [9:05:03] [09:05:03");
}

} // namespace
} // namespace kelconf::test
