// The client of one command, on libkelbus; failures are said in the words of kelctl.
#pragma once

#include "cli/options.h"

#include <kelbus.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace kelconf::cli {

struct CloseClient {
    void operator()(kelbus* client) const noexcept;
};
using Values = std::shared_ptr<const kelbus_values>; // of the bus or out of the view
Values ownedValues(kelbus_values* raw);              // takes what the client handed out, or null

struct Bus {
    std::unique_ptr<kelbus, CloseClient> client;
    int limit = 0; // milliseconds for one request
};

// Between the two calls a client that is closed is kept for the next command of this process.
void keepClient();
void dropClient();
bool keepsClient();

// kDone, or the failure, said. Needs no running service.
int openBus(const Options& options, Bus& bus);

// The exit status of a failed call, said in one line with what to do.
int saidFailure(const Bus& bus, kelbus_error error);
int exitStatus(kelbus_error error);
// What went wrong and what to do, without saying it.
std::string failureText(const Bus& bus, kelbus_error error);

std::vector<const char*> cTexts(const std::vector<std::string>& texts);

// These read the view where it has what is asked, and the bus otherwise: for secrets, for what is
// to be said of an unknown name, and when nobody publishes a view.
//
// The live parameters whose names begin with `prefix` come out of a listing that may hold others
// (filter with startsWith). kDone, or the failure, said.
int fetchListing(const Bus& bus, std::string_view prefix, Values& values);

// The bus compares this many bytes of a group's name with those of a parameter.
inline constexpr std::size_t kGroupBytes = 8;

// The members of the groups, by the service's rule of eight bytes. kDone, or the failure, said.
int fetchGroups(const Bus& bus, const std::vector<std::string>& groups, Values& values);

// In ascending order; none where there is no view.
std::vector<std::string> namesInView();

// The values of these names, in their order; of an unknown one the value is null. kDone also then.
int fetchNamed(const Bus& bus, const std::vector<std::string>& names, Values& values);

inline bool startsWith(std::string_view name, std::string_view prefix) {
    return name.substr(0, prefix.size()) == prefix;
}

} // namespace kelconf::cli
