// The bus, for the threads that may wait: requests of any thread, and the thread that watches.
#pragma once

#include "kelbus.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kelconf::web {

class Mirror;
class Hub;

using NamedValues = std::vector<std::pair<std::string, std::string>>;

// Sets the values in one request.
kelbus_error setValues(const NamedValues& values, bool store_now);

// Keeps the mirror like the service, and tells the hub of changes. From construction to
// destruction; one thread of its own.
class Watcher {
  public:
    Watcher(Mirror& mirror, Hub& hub);
    ~Watcher();
    Watcher(const Watcher&) = delete;
    Watcher& operator=(const Watcher&) = delete;
    Watcher(Watcher&&) = delete;
    Watcher& operator=(Watcher&&) = delete;

  private:
    void run();

    Mirror& mirror_;
    Hub& hub_;
    std::atomic<bool> ended_{false};
    std::thread thread_;
};

} // namespace kelconf::web
