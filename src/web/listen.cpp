// Where the server listens.

#include "base/aligned.h"
#include "base/fd.h"
#include "web/options.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>

namespace kelconf::web {

namespace {

constexpr int kBacklog = 256;

struct FreeAddresses {
    void operator()(addrinfo* addresses) const { freeaddrinfo(addresses); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

// Null for what is no number of an address and of a port.
Addresses resolve(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos) {
        return nullptr;
    }
    std::string host = text.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) {
        host = host.substr(1, host.size() - 2);
    }
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int failed = getaddrinfo(host.c_str(), text.c_str() + colon + 1, &hints, &found);
    return failed != 0 || host.empty() ? nullptr : Addresses{found};
}

bool isLoopback(const sockaddr* address) {
    if (address->sa_family == AF_INET) {
        const auto* ipv4 = alignedCast<const sockaddr_in>(address);
        return ntohl(ipv4->sin_addr.s_addr) >> 24U == 127;
    }
    return IN6_IS_ADDR_LOOPBACK(&alignedCast<const sockaddr_in6>(address)->sin6_addr);
}

// With the port that the system has chosen where it was 0.
std::string placeOf(int fd, const std::string& text) {
    sockaddr_storage storage{};
    socklen_t size = sizeof storage;
    std::array<char, NI_MAXSERV> port{};
    auto* address = reinterpret_cast<sockaddr*>(&storage);
    getsockname(fd, address, &size);
    getnameinfo(address, size, nullptr, 0, port.data(), port.size(), NI_NUMERICSERV);
    return text.substr(0, text.rfind(':') + 1) + port.data();
}

} // namespace

int listenAt(const std::string& address, bool& loopback, std::string& place) {
    const Addresses resolved = resolve(address);
    if (!resolved) {
        std::cerr << "kelconf-web: " << address << " is no ADDRESS:PORT\n";
        return -1;
    }
    loopback = isLoopback(resolved->ai_addr);
    const int on = 1;
    Fd listening{socket(resolved->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
    if (!listening || setsockopt(listening.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(listening.get(), resolved->ai_addr, resolved->ai_addrlen) != 0 ||
        listen(listening.get(), kBacklog) != 0) {
        std::cerr << "kelconf-web: " << address << ": " << std::strerror(errno) << '\n';
        return -1;
    }
    place = placeOf(listening.get(), address);
    return listening.release();
}

} // namespace kelconf::web
