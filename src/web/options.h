// The command line of kelconf-web (kelconf-web(8)).
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kelconf::web {

constexpr int kUsage = 2; // the exit status for a wrong command line

struct WebOptions {
    std::string listen = "127.0.0.1:8080";
    std::string certificate; // file names
    std::string key;
    std::string accounts;
    std::string root;
    bool insecure = false;
    bool help = false;
    std::vector<std::string> words; // "account", "add", ...
};

// Nothing when it is not understood; said on standard error.
std::optional<WebOptions> readOptions(int argc, char** argv);

const char* usage();

// kelconf-web account ...: the exit status.
int runAccountCommand(const WebOptions& options);

// A socket that listens at ADDRESS:PORT; -1 when that is none or cannot be had, said on standard
// error. `loopback`: nobody but this device reaches it. `place` is where it listens.
int listenAt(const std::string& address, bool& loopback, std::string& place);

} // namespace kelconf::web
