// Threads for work that waits: for the bus, for a hash. The queue is bounded.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace kelconf::web {

class Workers {
  public:
    explicit Workers(unsigned threads);
    ~Workers() { finish(); }
    Workers(const Workers&) = delete;
    Workers& operator=(const Workers&) = delete;
    Workers(Workers&&) = delete;
    Workers& operator=(Workers&&) = delete;

    // Does what is queued, then takes nothing more.
    void finish();
    // False when too much waits already.
    bool add(std::function<void()> job);

  private:
    void run();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::function<void()>> jobs_;
    bool ended_ = false;
    std::vector<std::thread> threads_;
};

} // namespace kelconf::web
