// The watch of kelbus.h.
#include "bus/endpoints.h"
#include "client/client_context.h"
#include "client/connection.h"
#include "client/deadline.h"
#include "client/reply_document.h"
#include "kelbus.h"

#include <algorithm>
#include <new>
#include <string>
#include <vector>

struct kelbus_watch {
    kelconf::ContextUse context;
    kelconf::Socket events;
    std::vector<std::string> prefixes;
    kelconf::ReplyReader reader;
    kelconf::ReplyDocument document; // the event that is being handed out
    std::size_t next = 0;            // position in its parameters
    int descriptor = -1;
    bool open_to_us = false; // somebody served the events and let us connect
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

// Waits for a message, at most until the service has to be looked for again.
kelbus_error awaitMessage(kelbus_watch& watch, Message& message, const Deadline& deadline) {
    void* socket = watch.events.get();
    setSocketOption(socket, ZMQ_RCVTIMEO,
                    watch.open_to_us ? deadline.leftOrForever() : deadline.left(kLookAgain));
    if (message.receive(socket, 0) >= 0) {
        return KELBUS_OK;
    }
    if (zmq_errno() != EAGAIN && zmq_errno() != EINTR) {
        return KELBUS_NO_MEMORY;
    }
    const kelbus_error error = lookForService(watch);
    return error == KELBUS_OK ? KELBUS_TIMEOUT : error;
}

kelbus_error nextChange(kelbus_watch& watch, kelbus_change& change, const Deadline& deadline) {
    while (!takeChange(watch, change)) {
        Message message;
        const kelbus_error error = awaitMessage(watch, message, deadline);
        if (error == KELBUS_OK && !readEvent(watch, message)) {
            return KELBUS_BROKEN_REPLY;
        }
        if (error != KELBUS_OK && (error != KELBUS_TIMEOUT || deadline.over())) {
            return error;
        }
    }
    return KELBUS_OK;
}

// Waits until the subscription has been sent, as far as somebody listens.
void awaitConnection(void* news) {
    const Deadline deadline{kOpenPatience};
    while (probeEndpoint(endpoints::kEvent) == Listener::kThere && !deadline.over()) {
        zmq_pollitem_t heard{news, 0, ZMQ_POLLIN, 0};
        zmq_poll(&heard, 1, deadline.left());
        if (readNews(news).ready) {
            return;
        }
    }
}

bool subscribe(kelbus_watch& watch) {
    watch.events = watch.context.socket(ZMQ_SUB);
    void* socket = watch.events.get();
    const Socket news = socket != nullptr ? openEvents(watch.context.get(), socket) : Socket{};
    if (!news) {
        return false;
    }
    setSocketOption(socket, ZMQ_LINGER, 0);
    std::size_t size = sizeof watch.descriptor;
    const bool connected = zmq_setsockopt(socket, ZMQ_SUBSCRIBE, "", 0) == 0 &&
                           zmq_connect(socket, endpoints::kEvent) == 0 &&
                           zmq_getsockopt(socket, ZMQ_FD, &watch.descriptor, &size) == 0;
    if (connected) {
        awaitConnection(news.get());
    }
    zmq_socket_monitor(socket, nullptr, 0); // before the pair closes: see CloseHeard
    return connected;
}

kelbus_error connect(kelbus_watch& watch) {
    if (watch.context.get() == nullptr) {
        return KELBUS_NO_MEMORY;
    }
    const kelbus_error error = lookForService(watch);
    if (error != KELBUS_OK) {
        return error;
    }
    return subscribe(watch) ? KELBUS_OK : KELBUS_NO_MEMORY;
}

} // namespace

} // namespace kelconf

kelbus_error kelbus_watch_open(kelbus_watch** watch, const char* const* prefixes, size_t count) {
    if (watch == nullptr) {
        return KELBUS_BAD_ARGUMENT;
    }
    *watch = nullptr;
    if (count > 0 && (prefixes == nullptr ||
                      std::find(prefixes, prefixes + count, nullptr) != prefixes + count)) {
        return KELBUS_BAD_ARGUMENT;
    }
    try {
        auto opened = std::make_unique<kelbus_watch>();
        opened->prefixes = std::vector<std::string>(prefixes, prefixes + count);
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
