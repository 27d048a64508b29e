// Clients of the configuration bus, on ZeroMQ's C API. Documents are written out by hand: the
// tests must not believe the builders that they test.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kelconf::test {

using Parameter = std::pair<std::string, std::string>;

std::string getRequest(const std::vector<std::string>& names);
// `root`: SET_ACTION, SET_ACTION_DIRECT or SET_ACTION_NO_DB. Texts are taken as XML.
std::string setRequest(const std::string& root, const std::vector<Parameter>& parameters);

// One REQ socket. A request without an answer within a minute throws: nothing here may hang.
class Requester {
  public:
    explicit Requester(const char* address);
    ~Requester();
    Requester(const Requester&) = delete;
    Requester& operator=(const Requester&) = delete;
    Requester(Requester&&) = delete;
    Requester& operator=(Requester&&) = delete;

    std::string ask(const std::string& request);
    // Empty when the service went away instead of answering; `given_up` is asked meanwhile.
    template <typename GivenUp>
    std::optional<std::string> tryToAsk(const std::string& request, GivenUp given_up) {
        send(request);
        std::optional<std::string> reply;
        while (!(reply = receive(std::chrono::milliseconds{20})) && !given_up()) {
        }
        return reply;
    }

  private:
    void send(const std::string& request);
    std::optional<std::string> receive(std::chrono::milliseconds time);

    void* context_;
    void* socket_;
};

// All events.
class Subscriber {
  public:
    Subscriber();
    ~Subscriber();
    Subscriber(const Subscriber&) = delete;
    Subscriber& operator=(const Subscriber&) = delete;
    Subscriber(Subscriber&&) = delete;
    Subscriber& operator=(Subscriber&&) = delete;

    std::optional<std::string> next(std::chrono::milliseconds time);

  private:
    void* context_;
    void* socket_;
};

// The live value of one name, as XML text; "?" where the service does not know it.
std::string valueOf(const std::string& name);
// True when the service answered that all names are known.
bool set(const std::string& root, const std::vector<Parameter>& parameters);

} // namespace kelconf::test
