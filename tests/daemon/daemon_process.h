// kelconfd as a child process of a test, inside a device root.
#pragma once

#include "base/fd.h"
#include "support/device_log.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace kelconf::test {

// Starts with the object and is killed with it. Whether it is ready is learnt from the notification
// that a service manager would get, never from waiting a while. A hang ends the test program: every
// wait has a deadline of a minute.
class Daemon {
  public:
    // `environment`: "NAME=VALUE", in addition to what a boot script would start it with.
    explicit Daemon(const std::vector<std::string>& environment = {});
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    Daemon(Daemon&&) = delete;
    Daemon& operator=(Daemon&&) = delete;

    // True when it serves; false when it has ended instead.
    bool awaitReady();
    void signal(int number) const;
    // Exit status, or 128 + the number of the signal that ended it.
    int awaitEnd();
    int stop();     // SIGTERM and awaitEnd
    void killNow(); // SIGKILL and awaitEnd
    [[nodiscard]] pid_t process() const { return process_; }

  private:
    Fd notifications_;
    Fd handle_;
    pid_t process_ = -1; // -1 once it was waited for
    int status_ = -1;
};

// The environment that puts the fault library (tests/faults) before its storage, with that setting.
std::vector<std::string> faults(const std::string& setting);

// A clean device: no stored files, no bus directory, one tree.
void resetDevice(const std::string& neutral_tree);

// A tree of one trunk `private` with the given elements inside.
std::string treeOf(const std::string& elements);
// One leaf.
std::string leaf(const std::string& name, const std::string& type, const std::string& value);

// What was logged to the console since `log` began or was asked last, as soon as `text` is among
// it; a test that waits for longer than a minute fails.
std::string loggedUntil(DeviceLog& log, const std::string& text);

// All bytes of a file, empty when there is none.
std::string contentOf(const std::string& path);

} // namespace kelconf::test
