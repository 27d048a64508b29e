// Tells the service manager what state the daemon is in.
//
// The protocol is sd_notify's: a manager that wants to know puts the address of a datagram socket
// into NOTIFY_SOCKET (a path, or an abstract name with '@' for the leading NUL), and each message
// is one datagram of "KEY=VALUE" lines. It is small enough not to need a library.
#pragma once

#include <string_view>

namespace kelconf {

inline constexpr std::string_view kNotifyReady = "READY=1";
inline constexpr std::string_view kNotifyAlive = "WATCHDOG=1"; // daemon/watchdog.h
inline constexpr std::string_view kNotifyStopping = "STOPPING=1";

enum class Notified {
    kSent,
    kNobody, // no manager asked
    kFailed  // an address that is none, or nobody listens there; the reason is in errno
};

// Sends one message. Logs nothing; never blocks. Reads the environment, which nothing in
// the process changes.
Notified notifyManager(std::string_view message);

} // namespace kelconf
