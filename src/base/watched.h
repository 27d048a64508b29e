// A value that threads wait for: the mutex, the condition and what they guard in one, so that no
// change goes without its lock or unannounced.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

namespace kelconf {

template <typename T>
class Watched {
  public:
    Watched() = default;
    explicit Watched(T value) : value_(std::move(value)) {}

    // `change` gets the value by reference; all who wait look again.
    template <typename Change>
    void change(Change change) {
        {
            const std::lock_guard lock{mutex_};
            change(value_);
        }
        changed_.notify_all();
    }
    void set(T value) {
        change([&](T& kept) { kept = std::move(value); });
    }
    T get() {
        const std::lock_guard lock{mutex_};
        return value_;
    }
    // Returns once the value is as `wanted` says.
    template <typename Wanted>
    void await(Wanted wanted) {
        std::unique_lock lock{mutex_};
        changed_.wait(lock, [&] { return wanted(std::as_const(value_)); });
    }
    // The same, for so long at most: false when it is not by then.
    template <typename Wanted>
    bool awaitFor(std::chrono::milliseconds time, Wanted wanted) {
        std::unique_lock lock{mutex_};
        return changed_.wait_for(lock, time, [&] { return wanted(std::as_const(value_)); });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    T value_{};
};

} // namespace kelconf
