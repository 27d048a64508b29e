// The addresses of the configuration bus (docs/bus.md). The service binds all of them; clients
// connect. ipc sockets are files below kDirectory, which the daemon makes and guards.
#pragma once

namespace kelconf::endpoints {

inline constexpr const char* kDirectory = "/tmp/kelbus";

inline constexpr const char* kGet = "ipc:///tmp/kelbus/kelbus_getsock";
inline constexpr const char* kSet = "ipc:///tmp/kelbus/kelbus_setsock";
inline constexpr const char* kGetAll = "ipc:///tmp/kelbus/kelbus_getallsock";
inline constexpr const char* kGetGroup = "ipc:///tmp/kelbus/kelbus_getgroupsock";
inline constexpr const char* kEvent = "ipc:///tmp/kelbus/kelbus_eventsock";

// Brokers: requesters connect to the front end, responders to the back end.
inline constexpr const char* kGetFrontEnd = "ipc:///tmp/kelbus/kelbus_get_sync_front_end";
inline constexpr const char* kGetBackEnd = "ipc:///tmp/kelbus/kelbus_get_sync_back_end";
inline constexpr const char* kSetFrontEnd = "ipc:///tmp/kelbus/kelbus_set_sync_front_end";
inline constexpr const char* kSetBackEnd = "ipc:///tmp/kelbus/kelbus_set_sync_back_end";

} // namespace kelconf::endpoints
