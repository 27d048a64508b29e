#include "client/connection.h"

#include "base/fd.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace kelconf {

namespace {

constexpr std::string_view kIpc = "ipc://";
constexpr int kSlice = 50;     // ms of waiting between two looks at the connection
constexpr int kSlowest = 1000; // ms between two attempts to connect

sockaddr_un unixAddress(const char* address) {
    sockaddr_un name{};
    name.sun_family = AF_UNIX;
    std::strncpy(name.sun_path, address + kIpc.size(), sizeof name.sun_path - 1);
    return name;
}

kelbus_error absent(const char* address, std::string& message) {
    message = "the configuration service does not run (nobody listens at ";
    message.append(address + kIpc.size()).append(")");
    return KELBUS_NO_SERVICE;
}

kelbus_error forbidden(const char* address, std::string& message) {
    message = "no permission to use ";
    message.append(address + kIpc.size())
        .append("; it is open to the service's user and to the group kelbus: usermod -aG kelbus "
                "USER, and log "
                "in anew");
    return KELBUS_REFUSED;
}

kelbus_error noSocket(std::string& message) {
    message = std::string{"no socket for a connection: "} + zmq_strerror(zmq_errno());
    return KELBUS_NO_MEMORY;
}

kelbus_error open(const ContextUse& context, Connection& connection, const char* address,
                  std::string& message) {
    switch (probeEndpoint(address)) {
    case Listener::kAbsent:
        return absent(address, message);
    case Listener::kForbidden:
        return forbidden(address, message);
    case Listener::kThere:
        break;
    }
    connection.requests.reset(context.socket(ZMQ_REQ).release());
    if (!connection.requests) {
        return noSocket(message);
    }
    setSocketOption(connection.requests.get(), ZMQ_LINGER, 0);
    // A connection that was lost is opened anew by the next request; until then it need not try
    // hard.
    setSocketOption(connection.requests.get(), ZMQ_RECONNECT_IVL_MAX, kSlowest);
    connection.events = openEvents(context.get(), connection.requests.get());
    if (!connection.events || zmq_connect(connection.requests.get(), address) != 0) {
        return noSocket(message);
    }
    return KELBUS_OK;
}

// Whether the service can still answer on this connection.
bool alive(Connection& connection, const char* address) {
    const ConnectionNews news = readNews(connection.events.get());
    connection.ready = connection.ready || news.ready;
    return !news.lost && (connection.ready || probeEndpoint(address) == Listener::kThere);
}

kelbus_error whole(Message& reply, std::string& message) {
    if (!reply.more()) {
        return KELBUS_OK;
    }
    message = "the answer has several parts";
    return KELBUS_BROKEN_REPLY;
}

} // namespace

Listener probeEndpoint(const char* address) {
    const Fd probe{socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    const sockaddr_un name = unixAddress(address);
    if (!probe ||
        connect(probe.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name) == 0) {
        return Listener::kThere;
    }
    if (errno == EACCES || errno == EPERM) {
        return Listener::kForbidden;
    }
    // Anything else, a full backlog for example, says that somebody is there.
    return errno == ENOENT || errno == ECONNREFUSED || errno == ENOTDIR ? Listener::kAbsent
                                                                        : Listener::kThere;
}

Socket openEvents(void* context, void* socket) {
    static std::atomic<unsigned> opened{0};
    const std::string address = "inproc://kelbus-events-" + std::to_string(++opened);
    Socket events{zmq_socket(context, ZMQ_PAIR)};
    constexpr int kHeard = ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED;
    if (!events || zmq_socket_monitor(socket, address.c_str(), kHeard) != 0) {
        return {};
    }
    setSocketOption(events.get(), ZMQ_LINGER, 0);
    setSocketOption(events.get(), ZMQ_RCVHWM, 0); // two for each restart of the service, unread
    if (zmq_connect(events.get(), address.c_str()) != 0) {
        zmq_socket_monitor(socket, nullptr, 0);
        return {};
    }
    return events;
}

void CloseHeard::operator()(void* socket) const noexcept {
    zmq_socket_monitor(socket, nullptr, 0);
    zmq_close(socket);
}

// An event is a 16-bit number and a 32-bit value; a second part names the endpoint.
ConnectionNews readNews(void* events) {
    ConnectionNews news;
    Message part;
    while (part.receive(events, ZMQ_DONTWAIT) >= 0) {
        std::uint16_t event = 0;
        if (part.more() && part.size() >= sizeof event) {
            std::memcpy(&event, part.data(), sizeof event);
        }
        news.ready = news.ready || event == ZMQ_EVENT_HANDSHAKE_SUCCEEDED;
        news.lost = news.lost || event == ZMQ_EVENT_DISCONNECTED;
    }
    return news;
}

kelbus_error sendRequest(const ContextUse& context, Connection& connection, const char* address,
                         std::string_view request, std::string& message) {
    if (connection.requests && readNews(connection.events.get()).lost) {
        closeConnection(connection);
    }
    if (!connection.requests) {
        const kelbus_error error = open(context, connection, address, message);
        if (error != KELBUS_OK) {
            return error;
        }
    }
    const int sent =
        zmq_send(connection.requests.get(), request.data(), request.size(), ZMQ_DONTWAIT);
    return sent < 0 ? noSocket(message) : KELBUS_OK;
}

kelbus_error awaitReply(Connection& connection, const char* address, Message& reply,
                        const Deadline& deadline, std::string& message) {
    void* socket = connection.requests.get();
    for (;;) {
        setSocketOption(socket, ZMQ_RCVTIMEO, deadline.left(kSlice));
        if (reply.receive(socket, 0) >= 0) {
            return whole(reply, message);
        }
        if (zmq_errno() != EAGAIN && zmq_errno() != EINTR) {
            return noSocket(message);
        }
        if (!alive(connection, address)) {
            message = "the configuration service ended before it answered";
            return KELBUS_NO_SERVICE;
        }
        if (deadline.over()) {
            message = "the configuration service did not answer in time";
            return KELBUS_TIMEOUT;
        }
    }
}

void closeConnection(Connection& connection) {
    connection.requests.reset();
    connection.events.reset();
    connection.ready = false;
}

} // namespace kelconf
