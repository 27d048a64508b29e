// Clients of the configuration bus, on ZeroMQ's C API. Documents are written out by hand: the
// tests must not believe the builders that they test.
#pragma once

#include "bus/endpoints.h"

#include <zmq.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace kelconf::test {

using Parameter = std::pair<std::string, std::string>;
using Parts = std::vector<std::string>;

inline constexpr std::chrono::milliseconds kPatience{60'000}; // a hang, not a measure

// One socket in a context of its own, as another process has. A SUB socket takes everything.
class Peer {
  public:
    Peer(int type, const char* address);
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    Peer(Peer&&) = delete;
    Peer& operator=(Peer&&) = delete;

    void send(const Parts& parts) const;
    // The next message; without parts when there is none in that time.
    [[nodiscard]] Parts receive(std::chrono::milliseconds time = kPatience) const;

  private:
    void* context_;
    void* socket_;
};

// A document without its declaration and last line feed; "(none)", or the text with "(bad)" in
// front, for what is no document in one part.
std::string bodyOf(const Parts& message);

// The body of the reply to one request of a new client.
std::string ask(const char* address, const std::string& request);

// Texts are taken as XML. `root`: SET_ACTION, SET_ACTION_DIRECT or SET_ACTION_NO_DB.
std::string getRequest(const std::vector<std::string>& names);
std::string setRequest(const std::string& root, const std::vector<Parameter>& parameters);

inline constexpr const char* kSetDone = "<SET_RESPONSE_ACTION/>";
inline constexpr const char* kSetFailed = "<SET_RESPONSE_FAIL_ACTION/>";

// The live value of one name, as XML text; "?" where the service does not know it.
std::string valueOf(const std::string& name);
// True when the service answered that all names are known.
bool set(const std::string& root, const std::vector<Parameter>& parameters);

} // namespace kelconf::test
