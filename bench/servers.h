// The servers that the service's benchmark compares, and the databases that they serve.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

inline constexpr const char* kWork = "/tmp/bench"; // all files that are the benchmark's own

// A program as a child process without output; ended with SIGTERM, and waited for, with the object.
class Server {
  public:
    explicit Server(const std::vector<std::string>& command);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    Server(Server&&) = delete;
    Server& operator=(Server&&) = delete;

    // Seconds of processor time of all its threads, up to now.
    [[nodiscard]] double processorTime() const;
    // Kibibytes of resident memory now.
    [[nodiscard]] long residentKiB() const;
    // The id of its only child: the program that a tracer runs. 0 while it has none.
    [[nodiscard]] pid_t child() const;
    // The id of its thread of that name; 0 when it has none.
    [[nodiscard]] static pid_t threadOf(pid_t process, const std::string& name);
    [[nodiscard]] pid_t process() const { return process_; }

  private:
    pid_t process_ = -1;
};

// Runs a command to its end; anything but status 0 ends the program.
void runToEnd(const std::vector<std::string>& command);

// The last of the names: its changes are not logged.
inline constexpr const char* kUnloggedName = "camera.stream.passwd";

// Names as a camera's tree gives them, about 35 bytes each. The values have about ten.
std::vector<std::string> parameterNames(long count);

// Puts a sound live database of `count` such parameters in place of whatever there was, without a
// backup, and a tree that agrees with it.
void installDatabase(long count);

} // namespace bench
