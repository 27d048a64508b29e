// bus-tour: a small client of the configuration bus for scripts/run.
//   bus-tour get NAME          prints the response to a GET
//   bus-tour set NAME VALUE    subscribes to events, sets (stored before the response), prints the
//                              response and the event that announces the change
// Exit status 0 when the service answered in time and knows the name.
#include "bus/endpoints.h"

#include <zmq.h>

#include <iostream>
#include <string>
#include <string_view>

namespace {

constexpr int kPatience = 10'000; // ms for each message

class Client {
  public:
    Client(int type, const char* address)
        : context_(zmq_ctx_new()), socket_(zmq_socket(context_, type)) {
        constexpr int kNoLinger = 0;
        zmq_setsockopt(socket_, ZMQ_LINGER, &kNoLinger, sizeof kNoLinger);
        zmq_setsockopt(socket_, ZMQ_RCVTIMEO, &kPatience, sizeof kPatience);
        if (type == ZMQ_SUB) {
            zmq_setsockopt(socket_, ZMQ_SUBSCRIBE, "", 0);
        }
        zmq_connect(socket_, address);
    }
    ~Client() {
        zmq_close(socket_);
        zmq_ctx_term(context_);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    Client(Client&&) = delete;
    Client& operator=(Client&&) = delete;

    // Empty when nothing came in time.
    std::string receive() {
        zmq_msg_t message;
        zmq_msg_init(&message);
        std::string text;
        if (zmq_msg_recv(&message, socket_, 0) >= 0) {
            text.assign(static_cast<const char*>(zmq_msg_data(&message)), zmq_msg_size(&message));
        }
        zmq_msg_close(&message);
        return text;
    }

    std::string ask(const std::string& request) {
        zmq_send(socket_, request.data(), request.size(), 0);
        return receive();
    }

    void setPatience(int milliseconds) {
        zmq_setsockopt(socket_, ZMQ_RCVTIMEO, &milliseconds, sizeof milliseconds);
    }

  private:
    void* context_;
    void* socket_;
};

std::string parameter(std::string_view name, std::string_view value) {
    std::string text{"<parameter name=\""};
    text.append(name).append("\">").append(value).append("</parameter>");
    return text;
}

bool show(std::string_view what, const std::string& document, std::string_view wanted) {
    std::cout << what << ": " << document.substr(document.find('\n') + 1) << std::flush;
    return document.find(wanted) != std::string::npos;
}

int get(const std::string& name) {
    Client client{ZMQ_REQ, kelconf::endpoints::kGet};
    const std::string reply = client.ask("<GET_ACTION>" + parameter(name, "") + "</GET_ACTION>");
    return show("response", reply, "<GET_RESPONSE_ACTION>") ? 0 : 1;
}

// A subscription takes a moment to arrive; a change announced before is missed. So the value is
// set anew, each time to something else, until an event comes.
bool awaitSubscription(Client& events, Client& setter, const std::string& name) {
    events.setPatience(100);
    bool arrived = false;
    for (int attempt = 0; attempt < 100 && !arrived; ++attempt) {
        setter.ask("<SET_ACTION_DIRECT>" + parameter(name, std::to_string(attempt)) +
                   "</SET_ACTION_DIRECT>");
        arrived = !events.receive().empty();
    }
    while (!events.receive().empty()) {
    }
    events.setPatience(kPatience);
    return arrived;
}

int set(const std::string& name, const std::string& value) {
    Client events{ZMQ_SUB, kelconf::endpoints::kEvent};
    Client setter{ZMQ_REQ, kelconf::endpoints::kSet};
    if (!awaitSubscription(events, setter, name)) {
        std::cerr << "bus-tour: no event arrives\n";
        return 1;
    }
    const std::string reply =
        setter.ask("<SET_ACTION_DIRECT>" + parameter(name, value) + "</SET_ACTION_DIRECT>");
    const bool done = show("response", reply, "<SET_RESPONSE_ACTION/>");
    return show("event", events.receive(), value) && done ? 0 : 1;
}

} // namespace

int main(int argc, char** argv) {
    const std::string_view command{argc > 1 ? argv[1] : ""};
    if (command == "get" && argc == 3) {
        return get(argv[2]);
    }
    if (command == "set" && argc == 4) {
        return set(argv[2], argv[3]);
    }
    std::cerr << "usage: bus-tour get NAME | bus-tour set NAME VALUE\n";
    return 2;
}
