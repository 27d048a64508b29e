// Connections of a client to the service's endpoints.
#pragma once

#include "bus/zmq_handle.h"
#include "client/client_context.h"
#include "client/deadline.h"
#include "kelbus.h"

#include <memory>
#include <string>
#include <string_view>

namespace kelconf {

// Whether somebody listens at an endpoint of ours. A connection is tried and closed at once.
enum class Listener { kThere, kAbsent, kForbidden };
Listener probeEndpoint(const char* address);

// Closes a socket of which a pair hears. The thread that serves all sockets waits until somebody
// hears what it has to say, so nothing may be said any more once the pair is closed.
struct CloseHeard {
    void operator()(void* socket) const noexcept;
};
using HeardSocket = std::unique_ptr<void, CloseHeard>;

// A socket and the pair that hears of its connection's life. Both empty: not connected.
struct Connection {
    Socket events;
    HeardSocket requests; // destroyed before the pair
    bool ready = false;   // the handshake was through
};

// What the library heard of a connection since it asked last.
struct ConnectionNews {
    bool ready = false; // the handshake is through
    bool lost = false;  // the connection ended
};
ConnectionNews readNews(void* events);

// A pair that hears of `socket`; to be opened before the socket connects, and closed after it.
// Empty on failure.
Socket openEvents(void* context, void* socket);

// Sends a request and waits for its reply. Opens the connection where needed and closes it on any
// failure, so that a late reply is never read. On failure `message` says what happened.
kelbus_error exchange(const ContextUse& context, Connection& connection, const char* address,
                      std::string_view request, Message& reply, const Deadline& deadline,
                      std::string& message);

} // namespace kelconf
