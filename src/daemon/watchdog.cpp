#include "daemon/watchdog.h"

#include "bus/bus_context.h"
#include "bus/bus_xml.h"
#include "bus/endpoints.h"
#include "bus/zmq_handle.h"
#include "daemon/notify.h"
#include "service/param_list.h"

#include <unistd.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <string>
#include <string_view>

namespace kelconf {

namespace {

struct Probe {
    const char* endpoint;
    std::string request;
    Socket socket;
};

std::optional<std::int64_t> numberIn(const char* variable) {
    const char* text = std::getenv(variable);
    const std::string_view digits = text == nullptr ? "" : text;
    std::int64_t number = 0;
    const auto end = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    const bool whole = end.ec == std::errc{} && end.ptr == digits.data() + digits.size();
    return whole ? std::optional{number} : std::nullopt;
}

// Only the value of a name that is live makes the answer wait for the parameter lock.
std::string getRequest() {
    const ParamElement* first = paramElementAt(0);
    std::int32_t length = 0;
    const OwnedText document{genGetRequestXML(first == nullptr ? "" : first->name, &length)};
    return document ? std::string(document.get(), static_cast<std::size_t>(length)) : "";
}

bool connectTo(Probe& probe) {
    probe.socket.reset(zmq_socket(context, ZMQ_REQ));
    if (!probe.socket) {
        return false;
    }
    setSocketOption(probe.socket.get(), ZMQ_LINGER, 0);
    return zmq_connect(probe.socket.get(), probe.endpoint) == 0;
}

// Waits for the answer without a limit: the manager has one. False when the context ends.
bool answered(const Probe& probe) {
    Message answer;
    return zmq_send(probe.socket.get(), probe.request.data(), probe.request.size(), 0) >= 0 &&
           answer.receive(probe.socket.get(), 0) >= 0;
}

// No answer is under way, so the poll ends with its time, or early with the context.
bool pause(const Probe& probe, std::chrono::milliseconds time) {
    zmq_pollitem_t idle{probe.socket.get(), 0, ZMQ_POLLIN, 0};
    return zmq_poll(&idle, 1, std::chrono::duration<long, std::milli>{time}.count()) >= 0;
}

} // namespace

std::chrono::microseconds watchdogTime() {
    const auto process = numberIn("WATCHDOG_PID");
    const auto time = numberIn("WATCHDOG_USEC");
    const bool ours = !process || *process == getpid();
    return std::chrono::microseconds{ours && time && *time > 0 ? *time : 0};
}

void feedWatchdog() {
    const auto quarter = std::chrono::duration_cast<std::chrono::milliseconds>(watchdogTime() / 4);
    if (quarter.count() == 0) {
        return;
    }
    Probe get{endpoints::kGet, getRequest(), {}};
    Probe set{endpoints::kSet, "<SET_ACTION/>", {}};
    if (!connectTo(get) || !connectTo(set)) {
        return;
    }
    while (pause(get, quarter) && answered(get) && answered(set)) {
        notifyManager(kNotifyAlive);
    }
}

} // namespace kelconf
