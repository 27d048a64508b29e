#include "web/bus.h"

#include "web/events.h"
#include "web/mirror.h"

#include <poll.h>

#include <array>
#include <chrono>
#include <map>

namespace kelconf::web {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kLimit = 5000; // ms, of a request
constexpr milliseconds kPing{1000};
constexpr milliseconds kSettled{300};
constexpr milliseconds kHeartbeat{15000};
constexpr milliseconds kLook{100}; // how soon an end or a pause is seen

struct CloseClient {
    void operator()(kelbus* client) const { kelbus_close(client); }
};
struct CloseWatch {
    void operator()(kelbus_watch* watch) const { kelbus_watch_close(watch); }
};
struct FreeValues {
    void operator()(kelbus_values* values) const { kelbus_values_free(values); }
};
using Client = std::unique_ptr<kelbus, CloseClient>;
using Watch = std::unique_ptr<kelbus_watch, CloseWatch>;
using Values = std::unique_ptr<kelbus_values, FreeValues>;

Client openClient() {
    kelbus* client = nullptr;
    kelbus_open(&client);
    return Client{client};
}

const char* stateEvent(bool up) {
    return up ? "event: service\ndata: {\"state\":\"up\"}\n\n"
              : "event: service\ndata: {\"state\":\"down\"}\n\n";
}

// What the watching thread has in its hands.
class Watching {
  public:
    Watching(Mirror& mirror, Hub& hub) : mirror_(mirror), hub_(hub), client_(openClient()) {}
    void turn();

  private:
    void connect();
    void takeChanges();
    void settle();
    kelbus_error ask();
    void ping();
    void apply(std::string_view name, std::string_view value);
    bool load();
    void lose();

    Mirror& mirror_;
    Hub& hub_;
    Client client_;
    Watch watch_; // while the service is up
    bool gap_ = false;
    std::map<std::string, int, std::less<>> restless_; // changed since the last pause, how often
    Clock::time_point changed_;
    Clock::time_point asked_;
    Clock::time_point beaten_ = Clock::now();
};

void Watching::turn() {
    if (!watch_) {
        connect();
    }
    if (watch_) {
        takeChanges();
    }
    const auto now = Clock::now();
    if (watch_ && gap_) {
        gap_ = !load();
        if (!gap_) {
            hub_.publish("", "event: resync\ndata: {}\n\n");
        }
    } else if (watch_ && !restless_.empty() && now - changed_ > kSettled) {
        settle();
    } else if (watch_ && now - asked_ > kPing) {
        ping();
    }
    if (now - beaten_ > kHeartbeat) {
        beaten_ = now;
        hub_.publish("", ":\n\n");
    }
    if (!watch_) {
        std::this_thread::sleep_for(kLook);
    }
}

// A watch that was opened while the service runs misses nothing of what is set after the load.
void Watching::connect() {
    if (Clock::now() - asked_ < kLook * 5) {
        return;
    }
    asked_ = Clock::now();
    if (!client_ && !(client_ = openClient())) {
        return;
    }
    kelbus_watch* opened = nullptr;
    if (ask() != KELBUS_OK ||
        kelbus_watch_open_with(&opened, nullptr, 0, KELBUS_WATCH_GAPS) != KELBUS_OK) {
        return;
    }
    watch_.reset(opened);
    gap_ = !load();
    if (watch_ && !gap_) {
        hub_.publish("", stateEvent(true));
        hub_.publish("", "event: resync\ndata: {}\n\n");
    }
}

// The least that makes the service answer.
kelbus_error Watching::ask() {
    const char* groups[] = {"-"};
    kelbus_values* raw = nullptr;
    const kelbus_error error = kelbus_get_group(client_.get(), groups, 1, &raw, kLimit);
    const Values answer{raw};
    return error;
}

void Watching::takeChanges() {
    pollfd wait{kelbus_watch_fd(watch_.get()), POLLIN, 0};
    kelbus_change change{};
    kelbus_error error = kelbus_watch_next(watch_.get(), &change, 0);
    if (error == KELBUS_TIMEOUT) {
        poll(&wait, 1, static_cast<int>(kLook.count()));
        error = kelbus_watch_next(watch_.get(), &change, 0);
    }
    for (; error == KELBUS_OK; error = kelbus_watch_next(watch_.get(), &change, 0)) {
        if (change.name == nullptr) {
            gap_ = true;
        } else {
            apply(change.name, change.value);
        }
    }
}

// What was set through the web is in the mirror, and was told, before its event comes.
void Watching::apply(std::string_view name, std::string_view value) {
    changed_ = Clock::now();
    ++restless_[std::string{name}];
    if (const auto change = mirror_.apply(name, value)) {
        hub_.publish(change->name, changeEvent(*change));
    }
}

// Events of changes that were made fast one after the other may have come in another order: once
// it is quiet, what the service has is read for those.
void Watching::settle() {
    std::vector<const char*> names;
    for (const auto& [name, times] : restless_) {
        if (times > 1) {
            names.push_back(name.c_str());
        }
    }
    kelbus_values* raw = nullptr;
    if (!names.empty() && kelbus_get_many(client_.get(), names.data(), names.size(), &raw,
                                          kLimit) == KELBUS_NO_SERVICE) {
        lose();
    }
    const Values values{raw};
    for (std::size_t i = 0; values && i < values->count; ++i) {
        const kelbus_parameter& item = values->items[i];
        const auto change =
            item.value == nullptr ? std::nullopt : mirror_.apply(item.name, item.value);
        if (change) {
            hub_.publish(change->name, changeEvent(*change));
        }
    }
    restless_.clear();
}

void Watching::ping() {
    asked_ = Clock::now();
    const kelbus_error error = ask();
    if (error == KELBUS_NO_SERVICE || error == KELBUS_TIMEOUT) {
        lose();
    }
}

bool Watching::load() {
    kelbus_values* raw = nullptr;
    const kelbus_error error = kelbus_get_all(client_.get(), &raw, kLimit);
    const Values values{raw};
    Content content;
    if (error != KELBUS_OK || !(content.definitions = readDefinitions())) {
        lose();
        return false;
    }
    content.live = values->count;
    content.values.resize(content.definitions->size());
    for (std::size_t i = 0; i < values->count; ++i) {
        const std::size_t place = placeOf(*content.definitions, values->items[i].name);
        if (place < content.values.size()) {
            content.values[place] = values->items[i].value;
        }
    }
    mirror_.load(std::move(content));
    return true;
}

void Watching::lose() {
    watch_.reset();
    restless_.clear();
    if (mirror_.goDown()) {
        hub_.publish("", stateEvent(false));
    }
}

} // namespace

kelbus_error setValues(const NamedValues& values, bool store_now) {
    thread_local const Client client = openClient();
    std::vector<kelbus_parameter> parameters;
    parameters.reserve(values.size());
    for (const auto& [name, value] : values) {
        parameters.push_back({name.c_str(), value.c_str()});
    }
    if (!client) {
        return KELBUS_NO_MEMORY;
    }
    return kelbus_set_many(client.get(), parameters.data(), parameters.size(),
                           store_now ? KELBUS_SET_DIRECT : KELBUS_SET, kLimit);
}

Watcher::Watcher(Mirror& mirror, Hub& hub)
    : mirror_(mirror), hub_(hub), thread_([this] { run(); }) {}

Watcher::~Watcher() {
    ended_ = true;
    thread_.join();
}

void Watcher::run() {
    Watching watching{mirror_, hub_};
    while (!ended_) {
        watching.turn();
    }
}

} // namespace kelconf::web
