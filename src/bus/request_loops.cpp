#include "bus/request_loops.h"

#include "base/watched.h"
#include "bus/bus_context.h"
#include "bus/bus_xml.h"
#include "bus/endpoints.h"
#include "bus/relay.h"
#include "bus/service_locks.h"
#include "bus/zmq_handle.h"
#include "log/keldebug.h"
#include "service/request_lists.h"
#include "service/set_handling.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>

namespace kelconf {

namespace {

constexpr int kLastReplyLinger = 500; // ms for the last reply when a loop ends
constexpr std::chrono::seconds kReopenPause{1};

struct Endpoint {
    const char* address;
    const char* stop_address; // inside the process: a message here wakes the loop up to end
    const char* bound_message;
    // Takes the first part of a request and sends one reply.
    void (*serve)(void* socket, const char* bytes, std::int32_t length);
};

// What the threads of the loops share with the thread that stops them.
struct LoopState {
    bool stopping = false;
    std::int32_t running = 0; // loops that have not returned
    std::int32_t opened = 0;  // loops and brokers that have opened their endpoints
};

Watched<LoopState>& loops() {
    static Watched<LoopState> state;
    return state;
}

// A document that could not be built is replaced by the bare root that fits.
void reply(void* socket, char* document, std::int32_t length, const char* bare_root) {
    OwnedText owned{document};
    if (!owned) {
        const std::string bare = std::string{"<?xml version=\"1.0\"?>\n<"} + bare_root + "/>\n";
        zmq_send(socket, bare.data(), bare.size(), ZMQ_DONTWAIT);
        return;
    }
    sendDocument(socket, std::move(owned), length, ZMQ_DONTWAIT);
}

void serveGet(void* socket, const char* bytes, std::int32_t length) {
    const GetAllCriticalSection lock;
    parseGetRequestXML(bytes, length);
    const std::int32_t found = searchValueForGetAnswerList();
    std::int32_t size = 0;
    char* document = genGetReponseXML(static_cast<std::uint8_t>(found), &size);
    reply(socket, document, size, "GET_RESPONSE_ACTION");
    delGetAnswerElement();
}

std::uint8_t applySet(std::int32_t code) {
    const GetAllCriticalSection lock;
    switch (code) {
    case kSetAction:
        return setValueForSetAnswerList();
    case kSetActionDirect:
        return setDirectValueForSetAnswerList();
    case kSetActionNoDb:
        return setValueForSetAnswerListNoDBStore();
    default:
        return 0;
    }
}

void serveSet(void* socket, const char* bytes, std::int32_t length) {
    const std::uint8_t success = applySet(parseSetRequestXML(bytes, length));
    std::int32_t size = 0;
    char* document = genSetReponseXML(success, &size);
    reply(socket, document, size, "SET_RESPONSE_FAIL_ACTION");
    delSetAnswerElement();
}

void serveGetAll(void* socket, const char* bytes, std::int32_t length) {
    const GetAllCriticalSection lock;
    parseGetAllRequestXML(bytes, length);
    std::int32_t size = 0;
    char* document = genGetAllReponseXML(&size);
    reply(socket, document, size, "GET_RESPONSE_ALL_ACTION");
}

void serveGetGroup(void* socket, const char* bytes, std::int32_t length) {
    const GetAllCriticalSection lock;
    parseGetGroupRequestXML(bytes, length);
    std::int32_t size = 0;
    char* document = genGetGroupReponseXML(&size);
    reply(socket, document, size, "GET_RESPONSE_GROUP_ACTION");
    delQryGroupElement();
}

constexpr Endpoint kGetEndpoint{endpoints::kGet, "inproc://stop-get",
                                "create get socket success!!\n", serveGet};
constexpr Endpoint kSetEndpoint{endpoints::kSet, "inproc://stop-set",
                                "create set socket success!!\n", serveSet};
constexpr Endpoint kGetAllEndpoint{endpoints::kGetAll, "inproc://stop-get-all",
                                   "create get all socket success!!\n", serveGetAll};
constexpr Endpoint kGetGroupEndpoint{endpoints::kGetGroup, "inproc://stop-get-group",
                                     "create get group socket success!!\n", serveGetGroup};

constexpr std::array kEndpoints{&kGetEndpoint, &kSetEndpoint, &kGetAllEndpoint, &kGetGroupEndpoint};

Socket openEndpoint(const Endpoint& endpoint) {
    Socket socket{zmq_socket(context, ZMQ_REP)};
    setSocketOption(socket.get(), ZMQ_LINGER, 0);
    zmq_setsockopt(socket.get(), ZMQ_MAXMSGSIZE, &kMaxMessageBytes, sizeof kMaxMessageBytes);
    if (bindEndpoint(socket.get(), endpoint.address) == 0) {
        keldebug(kLogInfo, kToBoth, "%s", endpoint.bound_message);
    }
    bindEndpoint(socket.get(), endpoint.stop_address);
    return socket;
}

enum class Received { kRequest, kNothing, kBroken, kEnd };

Received outcomeOf(int result) {
    if (result >= 0) {
        return loops().get().stopping ? Received::kEnd : Received::kRequest;
    }
    switch (zmq_errno()) {
    case EINTR:
        return Received::kNothing;
    case ETERM:
        return Received::kEnd;
    default:
        return Received::kBroken;
    }
}

void drainParts(void* socket, Message& last) {
    Message part;
    for (bool more = last.more(); more; more = part.more()) {
        if (part.receive(socket, 0) < 0) {
            return;
        }
    }
}

// Serves until the socket breaks (true) or the loop is to end (false).
bool serveSocket(void* socket, const Endpoint& endpoint) {
    while (!loops().get().stopping) {
        Message request;
        switch (outcomeOf(request.receive(socket, 0))) {
        case Received::kRequest:
            break;
        case Received::kNothing:
            continue;
        case Received::kBroken:
            return true;
        case Received::kEnd:
            return false;
        }
        drainParts(socket, request);
        constexpr std::size_t kTooLong = static_cast<std::size_t>(kMaxRequestBytes) + 1;
        endpoint.serve(socket, request.data(),
                       static_cast<std::int32_t>(std::min(request.size(), kTooLong)));
    }
    return false;
}

// False when the loops are to end.
bool pauseBeforeReopening() {
    return !loops().awaitFor(kReopenPause, [](const LoopState& state) { return state.stopping; });
}

void runLoop(const Endpoint& endpoint) {
    loops().change([](LoopState& state) { ++state.running; });
    bool again = true;
    bool counted = false;
    while (again) {
        const Socket socket = openEndpoint(endpoint);
        if (!counted) {
            loops().change([](LoopState& state) { ++state.opened; });
            counted = true;
        }
        again = serveSocket(socket.get(), endpoint);
        setSocketOption(socket.get(), ZMQ_LINGER, kLastReplyLinger);
        again = again && pauseBeforeReopening();
    }
    loops().change([](LoopState& state) {
        --state.running;
        --state.opened;
    });
}

struct Broker {
    const char* front_address;
    const char* back_address;
    const char* front_failed;
    const char* front_success;
    const char* back_failed;
    const char* back_success;
};

constexpr Broker kGetBroker{endpoints::kGetFrontEnd,
                            endpoints::kGetBackEnd,
                            "get sync front end socket create failed\n",
                            "get sync front end socket create success\n",
                            "get sync back end socket create failed\n",
                            "get sync back end socket create success\n"};
constexpr Broker kSetBroker{endpoints::kSetFrontEnd,
                            endpoints::kSetBackEnd,
                            "set sync front end socket create failed\n",
                            "set sync front end socket create success\n",
                            "set sync back end socket create failed\n",
                            "set sync back end socket create success\n"};

Socket openRelayEnd(int type, const char* address, const char* failed, const char* success) {
    Socket socket{zmq_socket(context, type)};
    if (bindEndpoint(socket.get(), address) != 0) {
        keldebug(kLogInfo, kToBoth, "%s", failed);
        std::quick_exit(0); // other threads are running: no destructor may
    }
    keldebug(kLogInfo, kToBoth, "%s", success);
    return socket;
}

std::int32_t runBroker(const Broker& broker) {
    const Socket front =
        openRelayEnd(ZMQ_ROUTER, broker.front_address, broker.front_failed, broker.front_success);
    const Socket back =
        openRelayEnd(ZMQ_DEALER, broker.back_address, broker.back_failed, broker.back_success);
    loops().change([](LoopState& state) { ++state.opened; });
    relayMessages(front.get(), back.get());
    loops().change([](LoopState& state) { --state.opened; });
    // What is still queued for peers that do not take it is given up with the relay.
    setSocketOption(front.get(), ZMQ_LINGER, 0);
    setSocketOption(back.get(), ZMQ_LINGER, 0);
    return 0;
}

} // namespace

void initGetSock() {
    runLoop(kGetEndpoint);
}

void initSetSock() {
    runLoop(kSetEndpoint);
}

void initGetAllSock() {
    runLoop(kGetAllEndpoint);
}

void initGetGroupSock() {
    runLoop(kGetGroupEndpoint);
}

std::int32_t initGetSyncSock() {
    return runBroker(kGetBroker);
}

std::int32_t initSetSyncSock() {
    return runBroker(kSetBroker);
}

void stopRequestLoops() {
    loops().change([](LoopState& state) { state.stopping = true; });
    // The wakers stay until the loops have ended: closing one takes back what it has sent.
    std::array<Socket, kEndpoints.size()> wakers;
    for (std::size_t i = 0; i < wakers.size(); ++i) {
        wakers[i] = Socket{zmq_socket(context, ZMQ_REQ)};
        setSocketOption(wakers[i].get(), ZMQ_LINGER, 0);
        zmq_connect(wakers[i].get(), kEndpoints[i]->stop_address);
        zmq_send(wakers[i].get(), "", 0, ZMQ_DONTWAIT);
    }
    loops().await([](const LoopState& state) { return state.running == 0; });
}

void allowRequestLoops() {
    loops().change([](LoopState& state) { state.stopping = false; });
}

void awaitRequestLoops(std::int32_t count) {
    loops().await([count](const LoopState& state) { return state.opened >= count; });
}

} // namespace kelconf
