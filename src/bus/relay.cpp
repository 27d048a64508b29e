#include "bus/relay.h"

#include "bus/zmq_handle.h"

#include <poll.h>

#include <array>
#include <cerrno>

namespace kelconf {

namespace {

// What the socket can do now, ZMQ_POLLIN and ZMQ_POLLOUT; -1 when the context is shut down.
int readiness(void* socket) {
    int events = 0;
    std::size_t size = sizeof events;
    int result = 0;
    do {
        result = zmq_getsockopt(socket, ZMQ_EVENTS, &events, &size);
    } while (result != 0 && zmq_errno() == EINTR);
    return result == 0 ? events : -1;
}

// Readable when the readiness may have changed since it was asked for last.
pollfd changesOf(void* socket) {
    int descriptor = -1;
    std::size_t size = sizeof descriptor;
    zmq_getsockopt(socket, ZMQ_FD, &descriptor, &size);
    return {descriptor, POLLIN, 0};
}

// A part that is refused is dropped, and ZeroMQ then drops the rest of its message: its receiver
// has just gone.
void relayPart(void* to, Message& part) {
    const int flags = part.more() ? ZMQ_SNDMORE : 0;
    while (part.send(to, flags) < 0 && zmq_errno() == EINTR) {
    }
}

void relayMessage(void* from, void* to) {
    Message part;
    bool more = true;
    while (more && part.receive(from, ZMQ_DONTWAIT) >= 0) {
        more = part.more();
        relayPart(to, part);
    }
}

} // namespace

void relayMessages(void* front, void* back) {
    std::array<pollfd, 2> changes{changesOf(front), changesOf(back)};
    for (;;) {
        const int requests = readiness(front);
        const int replies = readiness(back);
        if (requests < 0 || replies < 0) {
            return;
        }
        const bool reply = (replies & ZMQ_POLLIN) != 0;
        const bool request = (requests & ZMQ_POLLIN) != 0 && (replies & ZMQ_POLLOUT) != 0;
        if (reply) {
            relayMessage(back, front);
        }
        if (request) {
            relayMessage(front, back);
        }
        if (!reply && !request) {
            poll(changes.data(), changes.size(), -1);
        }
    }
}

} // namespace kelconf
