// Host defaults of the platform's address text functions.  On the device the
// hosting process provides the real ones, which take precedence over these
// weak definitions; on a host these parse and print dotted-quad IPv4 and the
// standard IPv6 text forms.
#include <arpa/inet.h>
#include <netinet/in.h>

#include "configmanager/cm_values.h"

extern "C" {

// Fills the family and address of a socket address large enough for IPv6;
// the port and the IPv6 flow label and scope are left as they were.
CM_EXPORT __attribute__((weak)) int ConvertStringToIpAddress(struct sockaddr* pSockAddr, const char* szText) {
    if (pSockAddr == nullptr || szText == nullptr) return -1;
    in_addr a4;
    if (inet_pton(AF_INET, szText, &a4) == 1) {
        auto* sin = reinterpret_cast<sockaddr_in*>(pSockAddr);
        sin->sin_family = AF_INET;
        sin->sin_addr = a4;
        return 0;
    }
    in6_addr a6;
    if (inet_pton(AF_INET6, szText, &a6) == 1) {
        auto* sin6 = reinterpret_cast<sockaddr_in6*>(pSockAddr);
        sin6->sin6_family = AF_INET6;
        sin6->sin6_addr = a6;
        return 0;
    }
    return -1;
}

CM_EXPORT __attribute__((weak)) int CopyAddressToString(char* szText, const struct sockaddr* pSockAddr, int iSize) {
    if (szText == nullptr || pSockAddr == nullptr || iSize <= 0) return -1;
    szText[0] = '\0';
    const void* addr;
    switch (pSockAddr->sa_family) {
    case AF_INET: addr = &reinterpret_cast<const sockaddr_in*>(pSockAddr)->sin_addr; break;
    case AF_INET6: addr = &reinterpret_cast<const sockaddr_in6*>(pSockAddr)->sin6_addr; break;
    default: return -1;
    }
    return inet_ntop(pSockAddr->sa_family, addr, szText, static_cast<socklen_t>(iSize)) != nullptr ? 0 : -1;
}

}
