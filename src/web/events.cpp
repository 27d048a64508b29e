#include "web/events.h"

#include "cli/output/shown_text.h"
#include "web/mirror.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace kelconf::web {

namespace {

constexpr std::size_t kMostEvents = 4096;
constexpr std::size_t kMostEventBytes = std::size_t{1} << 20;

std::shared_ptr<const std::string> shared(std::string text) {
    return std::make_shared<const std::string>(std::move(text));
}

bool wants(const Subscriber& subscriber, const std::string& name) {
    return name.empty() || isWanted(name, subscriber.prefixes);
}

} // namespace

std::string changeEvent(const Change& change) {
    std::string text = "event: change\ndata: {\"name\":" + cli::jsonText(change.name);
    if (change.secret) {
        text += R"(,"value":null,"previous":null,"set":)";
        text += change.value.empty() ? "false" : "true";
    } else {
        text += ",\"value\":" + cli::jsonText(change.value);
        text += ",\"previous\":" + cli::jsonText(change.previous);
    }
    return text + "}\n\n";
}

bool Hub::add(Subscriber& subscriber, std::string greeting) {
    const std::lock_guard lock{mutex_};
    if (closed_ || subscribers_.size() >= kMostSubscribers) {
        return false;
    }
    subscriber.next = first_ + ring_.size();
    subscriber.text = shared(std::move(greeting));
    subscribers_.insert(&subscriber);
    return true;
}

void Hub::remove(Subscriber& subscriber) {
    const std::lock_guard lock{mutex_};
    subscribers_.erase(&subscriber);
}

// Puts the next event that the subscriber wants under way.
bool Hub::takeNext(Subscriber& subscriber) {
    subscriber.sent = 0;
    if (subscriber.next < first_) {
        subscriber.next = first_ + ring_.size();
        subscriber.text = shared("event: resync\ndata: {}\n\n");
        return true;
    }
    for (; subscriber.next < first_ + ring_.size(); ++subscriber.next) {
        const Event& event = ring_.begin()[static_cast<std::ptrdiff_t>(subscriber.next - first_)];
        if (wants(subscriber, event.name)) {
            subscriber.text = event.text;
            ++subscriber.next;
            return true;
        }
    }
    subscriber.text.reset();
    return false;
}

std::ptrdiff_t Hub::read(Subscriber& subscriber, char* to, std::size_t size) {
    const std::lock_guard lock{mutex_};
    if (closed_ || !subscriber.allowed()) {
        return kEnd;
    }
    std::size_t copied = 0;
    while (copied < size) {
        if (!subscriber.text || subscriber.sent == subscriber.text->size()) {
            if (!takeNext(subscriber)) {
                break;
            }
        }
        const std::size_t part = std::min(size - copied, subscriber.text->size() - subscriber.sent);
        subscriber.text->copy(to + copied, part, subscriber.sent);
        subscriber.sent += part;
        copied += part;
    }
    if (copied == 0) {
        subscriber.asleep = true;
        subscriber.sleep();
    }
    return static_cast<std::ptrdiff_t>(copied);
}

void Hub::publish(std::string_view name, std::string text) {
    const std::lock_guard lock{mutex_};
    bytes_ += text.size();
    ring_.push_back({std::string{name}, shared(std::move(text))});
    while (ring_.size() > kMostEvents || bytes_ > kMostEventBytes) {
        bytes_ -= ring_.front().text->size();
        ring_.pop_front();
        ++first_;
    }
    const std::string published{name};
    for (Subscriber* subscriber : subscribers_) {
        if (subscriber->asleep && wants(*subscriber, published)) {
            subscriber->asleep = false;
            subscriber->wake();
        }
    }
}

void Hub::close() {
    const std::lock_guard lock{mutex_};
    closed_ = true;
    for (Subscriber* subscriber : subscribers_) {
        if (std::exchange(subscriber->asleep, false)) {
            subscriber->wake();
        }
    }
}

} // namespace kelconf::web
