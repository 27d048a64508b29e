#include "daemon/notify.h"

#include "files/fd.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace kelconf {

bool notifyManager(const char* state) {
    const char* variable = std::getenv("NOTIFY_SOCKET");
    const std::string_view name{variable == nullptr ? "" : variable};
    sockaddr_un address{};
    if (name.empty() || name.size() >= sizeof address.sun_path) {
        return false;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name.front() == '@') {
        address.sun_path[0] = '\0';
    }
    const Fd socket_fd{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    return socket_fd && sendto(socket_fd.get(), state, std::strlen(state), MSG_NOSIGNAL,
                               reinterpret_cast<const sockaddr*>(&address), length) >= 0;
}

} // namespace kelconf
