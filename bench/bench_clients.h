// The clients of the service's benchmark. All servers of the bus are asked by the same client; the
// peer's protocol needs one of its own. What goes wrong ends the program: half a measurement is
// none.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace bench {

[[noreturn]] void giveUp(const std::string& what);

// ---- Requests -----------------------------------------------------------------------------------

std::string getRequest(const std::vector<std::string>& names);
// All names get the same value.
std::string setRequest(std::string_view root, const std::vector<std::string>& names,
                       std::string_view value);
inline constexpr std::string_view kGetAllRequest = "<?xml version=\"1.0\"?>\n<GET_ALL_ACTION/>\n";

// ---- Clients ------------------------------------------------------------------------------------

// A REQ socket in a context of its own, as every process on the bus has. Waits a minute at most.
class BusClient {
  public:
    explicit BusClient(const char* address);
    ~BusClient();
    BusClient(const BusClient&) = delete;
    BusClient& operator=(const BusClient&) = delete;
    BusClient(BusClient&&) = delete;
    BusClient& operator=(BusClient&&) = delete;

    // Number of bytes of the reply, which is dropped.
    std::size_t ask(std::string_view request);
    std::string replyTo(std::string_view request);

  private:
    void* context_;
    void* socket_;
};

// Sees every event from its construction on.
class EventClient {
  public:
    EventClient();
    ~EventClient();
    EventClient(const EventClient&) = delete;
    EventClient& operator=(const EventClient&) = delete;
    EventClient(EventClient&&) = delete;
    EventClient& operator=(EventClient&&) = delete;

    // The next event; waits for it.
    std::string next();

  private:
    void* context_;
    void* socket_;
};

// A client of Redis (protocol RESP2) on a Unix socket: one command, one reply, no pipelining.
class RedisClient {
  public:
    // Tries for ten seconds until the server listens.
    explicit RedisClient(const char* path);
    ~RedisClient();
    RedisClient(const RedisClient&) = delete;
    RedisClient& operator=(const RedisClient&) = delete;
    RedisClient(RedisClient&&) = delete;
    RedisClient& operator=(RedisClient&&) = delete;

    // Sends a command made by commandOf and reads its reply to the end. An error reply ends the
    // program.
    void ask(std::string_view command);
    static std::string commandOf(const std::vector<std::string>& words);

  private:
    void fill();
    std::string_view line();
    void skip(std::size_t bytes);
    void readReply();

    int socket_;
    std::vector<char> buffer_;
    std::size_t begin_ = 0;
    std::size_t end_ = 0;
};

} // namespace bench
