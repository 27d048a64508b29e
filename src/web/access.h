// Who calls, and may they? Deny by default.
#pragma once

#include "web/call.h"

#include <optional>
#include <string>
#include <utility>

namespace kelconf::web {

// Nothing when the call may go on. With `unproven` set, the name and password that came with the
// call are to be proven first, by provePassword on a thread that may wait.
std::optional<Answer> checkCaller(Site& site, Call& call, const Route& route, bool& unproven);

// A log-in by name and password, throttled. Sets call.caller; an answer when it failed.
std::optional<Answer> provePassword(Site& site, Call& call);
// The same for any name and password.
std::optional<Answer> logIn(Site& site, const Call& call, const std::string& name,
                            const std::string& password, Account& account);

// The name and password of an Authorization header.
std::optional<std::pair<std::string, std::string>> basicOf(const std::string& authorization);

// Logs what a caller did; a change of a value and anything else. Control characters are escaped.
void logDeed(const Call& call, const std::string& deed);

} // namespace kelconf::web
