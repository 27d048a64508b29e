#include "bus/event_publisher.h"

#include "bus/bus_context.h"
#include "bus/bus_xml.h"
#include "bus/endpoints.h"
#include "bus/service_locks.h"
#include "bus/zmq_handle.h"
#include "log/keldebug.h"

#include <cstdlib>

namespace kelconf {

void* eventSock = nullptr;

namespace {

// A send alone leaves subscriptions that have arrived waiting for about a millisecond after it has
// last looked for some: a subscriber that is sure of its connection would miss the event.
// Asking for the events of the socket looks every time.
void takeInSubscriptions() {
    int events = 0;
    std::size_t size = sizeof events;
    zmq_getsockopt(eventSock, ZMQ_EVENTS, &events, &size);
}

// Under the event lock. Without a socket (before the start, after the end) the event is lost.
void publish(OwnedText document, std::int32_t length, int flags) {
    if (document != nullptr && eventSock != nullptr) {
        takeInSubscriptions();
        sendDocument(eventSock, std::move(document), length, flags);
    }
}

} // namespace

void initEventSocket() {
    eventSock = zmq_socket(context, ZMQ_PUB);
    if (bindEndpoint(eventSock, endpoints::kEvent) != 0) {
        keldebug(kLogInfo, kToBoth, "event socket create failed\n");
        std::quick_exit(0); // other threads may be running: no destructor may
    }
    keldebug(kLogInfo, kToBoth, "event socket create success\n");
}

std::int32_t sendEvent(const char* name, const char* value, const char* prev_value) {
    enterEventCriticalSection();
    std::int32_t length = 0;
    OwnedText document{genEventXML(name, value, prev_value, &length)};
    publish(std::move(document), length, ZMQ_DONTWAIT);
    return leaveEventCriticalSection();
}

std::int32_t sendMultipleEvent(simlist* changes) {
    enterEventCriticalSection();
    std::int32_t length = 0;
    OwnedText document{genMultipleEventXML(changes, &length)};
    publish(std::move(document), length, 0);
    return leaveEventCriticalSection();
}

void closeEventSocket(int linger_ms) {
    enterEventCriticalSection();
    if (eventSock != nullptr) {
        setSocketOption(eventSock, ZMQ_LINGER, linger_ms);
        zmq_close(eventSock);
        eventSock = nullptr;
    }
    leaveEventCriticalSection();
}

} // namespace kelconf
