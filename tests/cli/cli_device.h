// What the tests of kelctl share: a small device with its service, and command lines on it.
#pragma once

#include "daemon/daemon_process.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <string>

namespace kelconf::test {

// A few parameters of each kind; `key` is a secret by its type alone.
inline std::string smallTree() {
    return "<tree><cam type=\"trunk\">"
           "<key type=\"password\">k-1</key>"
           "<mode type=\"enum\" options=\"auto,manual\">auto</mode>"
           "<name type=\"string\">camera</name>"
           "<passwd type=\"password\">first</passwd>"
           "<port type=\"int\" range=\"1,65535\" step=\"1\" http_access=\"rw\">80</port>"
           "<state type=\"realtime\"/>"
           "<text type=\"string\"/>"
           "</cam><private type=\"trunk\"><encrypt_campass type=\"int\">0</encrypt_campass>"
           "</private></tree>";
}

// `count` parameters cam.p.1 and so on.
inline std::string largeTree(int count) {
    return "<tree><cam type=\"trunk\"><p type=\"multiple_instance\" number=\"" +
           std::to_string(count) + "\"><v type=\"string\">value %auto</v></p></cam></tree>";
}

// A command line in a shell, without an input unless it names one.
inline ProgramResult shell(const std::string& line) {
    writeFile("/tmp/line", line);
    const int raw = std::system("sh /tmp/line </dev/null >/tmp/line.out 2>/tmp/line.err");
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw), readFile("/tmp/line.out"),
            readFile("/tmp/line.err")};
}

// A clean device whose default.db is built and whose service answers.
class Device {
  public:
    explicit Device(const std::string& tree) {
        resetDevice(tree);
        EXPECT_EQ(shell("kelconf-init").status, 0);
        start();
    }
    void start() {
        service.emplace();
        EXPECT_TRUE(service->awaitReady());
    }
    void restart() {
        EXPECT_EQ(service->stop(), 0);
        start();
    }
    std::optional<Daemon> service;
};

} // namespace kelconf::test
