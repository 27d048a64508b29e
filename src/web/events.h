// Server-sent events on their way to the subscribers.
//
// All subscribers read one ring of finished texts, each from a place of its own: one that does not
// read costs no memory. Whoever falls behind the ring is told to read the list again ("resync").
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace kelconf::web {

inline constexpr std::size_t kMostSubscribers = 1024;

struct Subscriber {
    std::vector<std::string> prefixes; // of the names that it wants
    std::function<void()> sleep;       // stops asking for bytes, until
    std::function<void()> wake;        // is called; both are called with the hub's lock held
    std::function<bool()> allowed;     // no longer, when its session has ended
    // The hub's own:
    std::uint64_t next = 0;
    std::shared_ptr<const std::string> text; // under way, sent up to `sent`
    std::size_t sent = 0;
    bool asleep = false;
};

struct Change;

// The event of a change, with its end. A secret's values stay out of it.
std::string changeEvent(const Change& change);

// Any thread.
class Hub {
  public:
    static constexpr std::ptrdiff_t kEnd = -1;

    // False when there are too many. `greeting` is sent first.
    bool add(Subscriber& subscriber, std::string greeting);
    void remove(Subscriber& subscriber);
    // Copies what is next; 0 after subscriber.sleep(); kEnd when the stream is over.
    std::ptrdiff_t read(Subscriber& subscriber, char* to, std::size_t size);
    // An event for all who want `name`; an empty one is for everybody.
    void publish(std::string_view name, std::string text);
    // Ends all streams.
    void close();

  private:
    struct Event {
        std::string name;
        std::shared_ptr<const std::string> text;
    };
    bool takeNext(Subscriber& subscriber);

    std::mutex mutex_;
    std::deque<Event> ring_;
    std::size_t bytes_ = 0;   // of the texts in the ring
    std::uint64_t first_ = 0; // the number of the ring's first event
    std::unordered_set<Subscriber*> subscribers_;
    bool closed_ = false;
};

} // namespace kelconf::web
