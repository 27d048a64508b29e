#include "web/workers.h"

namespace kelconf::web {

namespace {

constexpr std::size_t kMostJobs = 64;

} // namespace

Workers::Workers(unsigned threads) {
    for (unsigned i = 0; i < threads; ++i) {
        threads_.emplace_back([this] { run(); });
    }
}

void Workers::finish() {
    {
        const std::lock_guard lock{mutex_};
        ended_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) {
        thread.join();
    }
    threads_.clear();
}

bool Workers::add(std::function<void()> job) {
    {
        const std::lock_guard lock{mutex_};
        if (ended_ || jobs_.size() >= kMostJobs) {
            return false;
        }
        jobs_.push_back(std::move(job));
    }
    changed_.notify_one();
    return true;
}

void Workers::run() {
    std::unique_lock lock{mutex_};
    for (;;) {
        changed_.wait(lock, [this] { return ended_ || !jobs_.empty(); });
        if (jobs_.empty()) {
            return;
        }
        const std::function<void()> job = std::move(jobs_.front());
        jobs_.pop_front();
        lock.unlock();
        job();
        lock.lock();
    }
}

} // namespace kelconf::web
