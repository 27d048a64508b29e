// The watch of kelbus.h.
#include "base/fd.h"
#include "bus/endpoints.h"
#include "client/client_context.h"
#include "client/connection.h"
#include "client/deadline.h"
#include "client/reply_document.h"
#include "client/watched_values.h"
#include "kelbus.h"

#include <poll.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <string>
#include <vector>

struct kelbus_watch {
    kelconf::ContextUse context;
    kelconf::Socket news; // hears of the connection; empty without options
    kelconf::HeardSocket events;
    std::vector<std::string> prefixes;
    kelconf::ReplyReader reader;
    kelconf::ReplyDocument document; // the event that is being handed out
    std::size_t next = 0;            // position in its parameters
    int descriptor = -1;             // of the events, or the poller's
    bool open_to_us = false;         // somebody served the events and let us connect

    // With options only:
    unsigned options = 0;
    kelconf::Fd poller;     // whatever may bring something to tell
    bool connected = false; // there has been a connection
    bool gap = false;       // to be told
    kelconf::WatchedValues values;
};

namespace kelconf {

namespace {

constexpr int kOpenPatience = 1000; // ms that opening a watch waits for its connection
constexpr int kLookAgain = 1000;    // ms between two looks for a service that lets us connect

bool wanted(const kelbus_watch& watch, std::string_view name) {
    return watch.prefixes.empty() ||
           std::any_of(watch.prefixes.begin(), watch.prefixes.end(),
                       [&](const std::string& prefix) { return name.starts_with(prefix); });
}

// The next change of the event in hand that is wanted.
bool takeChange(kelbus_watch& watch, kelbus_change& change) {
    const ReplyDocument& document = watch.document;
    while (watch.next < document.parameters.size()) {
        const ReplyParameter& parameter = document.parameters[watch.next++];
        if (wanted(watch, document.text(parameter.name))) {
            change = {document.text(parameter.name), document.text(parameter.value),
                      document.text(parameter.prev_value)};
            return true;
        }
    }
    return false;
}

bool takeValue(kelbus_watch& watch, kelbus_change& change) {
    while (const kelbus_parameter* value = watch.values.take()) {
        if (wanted(watch, value->name)) {
            change = {value->name, value->value, nullptr};
            return true;
        }
    }
    return false;
}

// False for something that is no event; it is gone then.
bool readEvent(kelbus_watch& watch, Message& message) {
    watch.next = 0;
    const bool whole = !message.more();
    while (message.more() && message.receive(watch.events.get(), 0) >= 0) {
    }
    if (whole && watch.reader.read({message.data(), message.size()}, watch.document) &&
        watch.document.root == "EVENT_ACTION") {
        return true;
    }
    watch.document = {};
    return false;
}

// A service that keeps us out is never heard. Looked for until one has let us in: later looks would
// cost the service a connection each.
kelbus_error lookForService(kelbus_watch& watch) {
    if (!watch.open_to_us) {
        const Listener listener = probeEndpoint(endpoints::kEvent);
        watch.open_to_us = listener == Listener::kThere;
        return listener == Listener::kForbidden ? KELBUS_REFUSED : KELBUS_OK;
    }
    return KELBUS_OK;
}

// What has come up to now is older than the values that are read from now on.
void dropEvents(kelbus_watch& watch) {
    watch.document = {};
    Message message;
    while (message.receive(watch.events.get(), ZMQ_DONTWAIT) >= 0) {
    }
}

// After the connection was made, the first time or again.
kelbus_error beginAnew(kelbus_watch& watch) {
    watch.gap = watch.connected;
    watch.connected = true;
    watch.open_to_us = true;
    dropEvents(watch);
    return (watch.options & KELBUS_WATCH_VALUES) != 0 ? watch.values.fetch(watch.poller)
                                                      : KELBUS_OK;
}

kelbus_error followConnection(kelbus_watch& watch) {
    if (watch.options == 0) {
        return KELBUS_OK;
    }
    const ConnectionNews news = readNews(watch.news.get());
    watch.open_to_us = watch.open_to_us && !news.lost;
    return news.ready ? beginAnew(watch) : KELBUS_OK;
}

int waitTime(const kelbus_watch& watch, const Deadline& deadline) {
    return watch.open_to_us ? deadline.leftOrForever() : deadline.left(kLookAgain);
}

// Leaves the events where they are, and lets the descriptor tell of later ones.
void holdEvents(const kelbus_watch& watch) {
    int events = 0;
    std::size_t size = sizeof events;
    zmq_getsockopt(watch.events.get(), ZMQ_EVENTS, &events, &size);
}

// Receives a message, or waits for one or, with options, for whatever else may bring something to
// tell. KELBUS_TIMEOUT: look again.
kelbus_error awaitMessage(kelbus_watch& watch, Message& message, const Deadline& deadline) {
    void* socket = watch.events.get();
    const bool polls = watch.options != 0;
    if (watch.values.pending()) {
        holdEvents(watch);
    } else {
        setSocketOption(socket, ZMQ_RCVTIMEO, polls ? 0 : waitTime(watch, deadline));
        if (message.receive(socket, 0) >= 0) {
            return KELBUS_OK;
        }
        if (zmq_errno() != EAGAIN && zmq_errno() != EINTR) {
            return KELBUS_NO_MEMORY;
        }
    }
    if (polls && !deadline.over()) {
        pollfd sources{watch.poller.get(), POLLIN, 0};
        poll(&sources, 1, waitTime(watch, deadline));
    }
    const kelbus_error error = lookForService(watch);
    return error == KELBUS_OK ? KELBUS_TIMEOUT : error;
}

// Something to tell that is there. KELBUS_TIMEOUT: nothing.
kelbus_error takeNext(kelbus_watch& watch, kelbus_change& change) {
    kelbus_error error = followConnection(watch);
    if (error != KELBUS_OK) {
        return error;
    }
    if (std::exchange(watch.gap, false)) {
        change = {};
        return KELBUS_OK;
    }
    error = watch.values.advance();
    if (error != KELBUS_OK) {
        return error;
    }
    return takeValue(watch, change) || takeChange(watch, change) ? KELBUS_OK : KELBUS_TIMEOUT;
}

kelbus_error nextChange(kelbus_watch& watch, kelbus_change& change, const Deadline& deadline) {
    for (;;) {
        kelbus_error error = takeNext(watch, change);
        if (error != KELBUS_TIMEOUT) {
            return error;
        }
        Message message;
        error = awaitMessage(watch, message, deadline);
        if (error == KELBUS_OK && !readEvent(watch, message)) {
            return KELBUS_BROKEN_REPLY;
        }
        if (error != KELBUS_OK && (error != KELBUS_TIMEOUT || deadline.over())) {
            return error;
        }
    }
}

// Waits until the subscription has been sent, as far as somebody listens. True when it has.
bool awaitConnection(void* news) {
    const Deadline deadline{kOpenPatience};
    while (probeEndpoint(endpoints::kEvent) == Listener::kThere && !deadline.over()) {
        zmq_pollitem_t heard{news, 0, ZMQ_POLLIN, 0};
        zmq_poll(&heard, 1, deadline.left());
        if (readNews(news).ready) {
            return true;
        }
    }
    return false;
}

int descriptorOf(void* socket) {
    int descriptor = -1;
    std::size_t size = sizeof descriptor;
    zmq_getsockopt(socket, ZMQ_FD, &descriptor, &size);
    return descriptor;
}

bool addTo(const Fd& poller, int descriptor) {
    epoll_event event{};
    event.events = EPOLLIN;
    return epoll_ctl(poller.get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

bool subscribe(kelbus_watch& watch) {
    watch.events.reset(watch.context.socket(ZMQ_SUB).release());
    void* socket = watch.events.get();
    if (socket == nullptr) {
        return false;
    }
    watch.news = openEvents(watch.context.get(), socket);
    setSocketOption(socket, ZMQ_LINGER, 0);
    watch.descriptor = descriptorOf(socket);
    return watch.news && watch.descriptor >= 0 &&
           zmq_setsockopt(socket, ZMQ_SUBSCRIBE, "", 0) == 0 &&
           zmq_connect(socket, endpoints::kEvent) == 0;
}

// The descriptor that stands for all.
bool pollAll(kelbus_watch& watch) {
    watch.poller = Fd{epoll_create1(EPOLL_CLOEXEC)};
    if (!watch.poller || !addTo(watch.poller, watch.descriptor) ||
        !addTo(watch.poller, descriptorOf(watch.news.get()))) {
        return false;
    }
    watch.descriptor = watch.poller.get();
    return true;
}

kelbus_error connect(kelbus_watch& watch) {
    if (watch.context.get() == nullptr) {
        return KELBUS_NO_MEMORY;
    }
    const kelbus_error error = lookForService(watch);
    if (error != KELBUS_OK) {
        return error;
    }
    if (!subscribe(watch) || (watch.options != 0 && !pollAll(watch))) {
        return KELBUS_NO_MEMORY;
    }
    const bool connected = awaitConnection(watch.news.get());
    if (watch.options != 0) {
        return connected ? beginAnew(watch) : KELBUS_OK;
    }
    zmq_socket_monitor(watch.events.get(), nullptr, 0); // before the pair closes: see CloseHeard
    watch.news.reset();
    return KELBUS_OK;
}

} // namespace

} // namespace kelconf

kelbus_error kelbus_watch_open(kelbus_watch** watch, const char* const* prefixes, size_t count) {
    return kelbus_watch_open_with(watch, prefixes, count, 0);
}

kelbus_error kelbus_watch_open_with(kelbus_watch** watch, const char* const* prefixes, size_t count,
                                    unsigned options) {
    if (watch == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    *watch = nullptr;
    if (count > 0 && (prefixes == nullptr ||
                      std::find(prefixes, prefixes + count, nullptr) != prefixes + count)) {
        return KELBUS_BAD_ARGUMENT;
    }
    if ((options & ~unsigned{KELBUS_WATCH_GAPS | KELBUS_WATCH_VALUES}) != 0) {
        return KELBUS_BAD_ARGUMENT;
    }
    try {
        auto opened = std::make_unique<kelbus_watch>();
        opened->prefixes = std::vector<std::string>(prefixes, prefixes + count);
        opened->options = options;
        const kelbus_error error = kelconf::connect(*opened);
        if (error == KELBUS_OK) {
            *watch = opened.release();
        }
        return error;
    } catch (const std::exception&) {
        return KELBUS_NO_MEMORY;
    }
}

int kelbus_watch_fd(const kelbus_watch* watch) {
    return watch == nullptr ? -1 : watch->descriptor;
}

kelbus_error kelbus_watch_next(kelbus_watch* watch, kelbus_change* change, int timeout_ms) {
    if (watch == nullptr || change == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    *change = {};
    try {
        return kelconf::nextChange(*watch, *change, kelconf::Deadline{timeout_ms});
    } catch (const std::exception&) {
        return KELBUS_NO_MEMORY;
    }
}

void kelbus_watch_close(kelbus_watch* watch) {
    delete watch;
}
