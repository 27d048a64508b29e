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

// Sends a request, which has to be answered before the next one; opens the connection where needed.
// On failure `message` says what happened, and the connection is of no use any more.
kelbus_error sendRequest(const ContextUse& context, Connection& connection, const char* address,
                         std::string_view request, std::string& message);

// Waits for the reply. KELBUS_TIMEOUT: it may still come. Any other failure as above.
kelbus_error awaitReply(Connection& connection, const char* address, Message& reply,
                        const Deadline& deadline, std::string& message);

// Closes it: a reply that comes late is never read.
void closeConnection(Connection& connection);

} // namespace kelconf
