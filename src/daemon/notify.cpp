#include "daemon/notify.h"

#include "base/fd.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace kelconf {

namespace {

struct Address {
    sockaddr_un name{};
    socklen_t size = 0; // 0: not an address of this protocol
};

// An abstract name is counted, a path ends at its NUL.
Address parse(std::string_view text) {
    Address address;
    address.name.sun_family = AF_UNIX;
    const bool abstract = text.starts_with('@');
    if ((!abstract && !text.starts_with('/')) || text.size() >= sizeof(address.name.sun_path)) {
        return address;
    }
    std::memcpy(address.name.sun_path, text.data(), text.size());
    if (abstract) {
        address.name.sun_path[0] = '\0';
    }
    address.size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size());
    return address;
}

} // namespace

Notified notifyManager(std::string_view message) {
    const char* wanted = std::getenv("NOTIFY_SOCKET");
    if (wanted == nullptr || *wanted == '\0') {
        return Notified::kNobody;
    }
    const Address address = parse(wanted);
    if (address.size == 0) {
        errno = EINVAL;
        return Notified::kFailed;
    }
    const Fd out{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    if (!out) {
        return Notified::kFailed;
    }
    const ssize_t sent =
        sendto(out.get(), message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
               reinterpret_cast<const sockaddr*>(&address.name), address.size);
    return sent == static_cast<ssize_t>(message.size()) ? Notified::kSent : Notified::kFailed;
}

} // namespace kelconf
