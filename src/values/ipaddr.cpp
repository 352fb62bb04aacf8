#include "values/ipaddr.h"

#include <netinet/in.h>

#include <cstring>

#include "platform/byte_order.h"

namespace cm::values {

// The port and address fields of the socket address structures hold their
// bytes in network order already, so they are copied as bytes; only the
// family is a host-order number.

int sockaddrToCmAddr(uint8_t* stored, const sockaddr* sa) {
    std::memset(stored, 0, kStoredAddrSize);
    switch (sa->sa_family) {
    case AF_UNSPEC:
        return 0;
    case AF_INET: {
        const auto* in = reinterpret_cast<const sockaddr_in*>(sa);
        platform::storeBe16(stored, AF_INET);
        std::memcpy(stored + 2, &in->sin_port, 2);
        std::memcpy(stored + 4, &in->sin_addr, 4);
        return 0;
    }
    case AF_INET6: {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(sa);
        platform::storeBe16(stored, AF_INET6);
        std::memcpy(stored + 2, &in6->sin6_port, 2);
        std::memcpy(stored + 4, &in6->sin6_addr, 16);
        return 0;
    }
    default:
        return -1;
    }
}

int cmAddrToSockaddr(sockaddr* sa, const uint8_t* stored) {
    const uint16_t family = platform::loadBe16(stored);
    switch (family) {
    case AF_UNSPEC:
        sa->sa_family = AF_UNSPEC;
        return 0;
    case AF_INET: {
        auto* in = reinterpret_cast<sockaddr_in*>(sa);
        in->sin_family = AF_INET;
        std::memcpy(&in->sin_port, stored + 2, 2);
        std::memcpy(&in->sin_addr, stored + 4, 4);
        return 0;
    }
    case AF_INET6: {
        auto* in6 = reinterpret_cast<sockaddr_in6*>(sa);
        in6->sin6_family = AF_INET6;
        std::memcpy(&in6->sin6_port, stored + 2, 2);
        std::memcpy(&in6->sin6_addr, stored + 4, 16);
        return 0;
    }
    default:
        sa->sa_family = AF_UNSPEC;
        return -1;
    }
}

}  // namespace cm::values
